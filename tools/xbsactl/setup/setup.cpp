#include <dlfcn.h>

#include <algorithm>
#include <filesystem>
#include <iostream>
#include <set>

#include "library/library.h"
#include "setup/parts.h"

namespace setup
{
namespace
{
// Links of the directory are resolved, those of the file are not: libxbsa.so.1 stays valid after an
// update.
std::string AbsolutePath(const std::string &I_strFile)
{
    const std::filesystem::path sFile = std::filesystem::absolute(I_strFile);
    std::string strPath = std::filesystem::canonical(sFile.parent_path()) / sFile.filename();
    if (base::HasControlCharacter(strPath) || strPath.find_first_of(" #'\"") != std::string::npos)
        throw base::FileFailure(
            strPath, ": an onconfig cannot contain a path with a blank, a quote or \"#\"");
    return strPath;
}

// Enters the library as the database needs it.
void FindLibrary(const std::string &I_strLibrary, JOURNAL &X_sJournal)
{
    void *vpLibrary = library::Load(I_strLibrary);
    Dl_info sInfo{};
    if (dladdr(library::Symbol(vpLibrary, "BSAInit"), &sInfo) == 0 || sInfo.dli_fname == nullptr)
        throw base::FileFailure("the path of the library is unknown");
    X_sJournal.strLibrary = AbsolutePath(sInfo.dli_fname);
    X_sJournal.strRow = library::VersionsRow(vpLibrary);
}

void WarnOfClosedPath(const std::string &I_strLibrary)
{
    for (const std::string &strPart : library::ClosedParts(I_strLibrary))
        std::cout
            << "# " << base::Printable(strPart)
            << " is not open to every account: make sure that the database's account can read the "
               "library\n";
}

// A database dump or an empty file that was given by mistake.
void CheckOnconfig(const std::string &I_strPath, const std::string &I_strText)
{
    if (I_strText.find('\0') != std::string::npos)
        throw base::FileFailure(I_strPath + " is not a text file: give the onconfig's name with "
                                            "--onconfig; nothing was changed");
    if (I_strText.find_first_not_of(" \t\r\n") == std::string::npos)
        throw base::FileFailure(I_strPath + " is empty: copy the database's configuration there "
                                            "first, or give its name with --onconfig");
}

CHANGE OnconfigChange(const PLACE &I_sPlace, const std::string &I_strLibrary)
{
    const std::string strPath = I_sPlace.Path(I_sPlace.strOnconfig);
    const std::string strBefore = I_sPlace.Content(I_sPlace.strOnconfig).value_or("");
    CheckOnconfig(strPath, strBefore);
    for (const std::string &strLine : base::Lines(strBefore))
        if (base::Sets(strLine, "LTAPEDEV") && base::Value(strLine) == "/dev/null")
            std::cout
                << "# LTAPEDEV is /dev/null: the database discards its logical logs instead of "
                   "backing them up,\n# and a restore ends at the last backup of the dbspaces\n";
    try
    {
        return {I_sPlace.strOnconfig, strBefore, OnconfigWith(strBefore, I_strLibrary)};
    } catch (const base::FAILURE &sFailure)
    {
        throw base::FileFailure(strPath + ": " + sFailure.what() + ": correct it by hand first");
    }
}

std::vector<CHANGE> Plan(const PLACE &I_sPlace, const JOURNAL &I_sJournal)
{
    const std::optional<std::string> strRows = I_sPlace.Content(VERSIONS);
    const std::optional<std::string> strTarget = I_sPlace.Content(LINK);
    std::vector<CHANGE> vecChanges;
    const auto fpAdd = [&vecChanges](const CHANGE &sChange) {
        if (sChange.strBefore != sChange.strAfter) vecChanges.push_back(sChange);
    };
    fpAdd(OnconfigChange(I_sPlace, I_sJournal.strLibrary));
    fpAdd({VERSIONS, strRows, VersionsWith(strRows.value_or(""), I_sJournal.strRow)});
    // A link that somebody else has changed since is left alone.
    const std::string strNow = HashOf(strTarget);
    const auto sOurs = std::ranges::find(I_sJournal.vecRecords, LINK, &RECORD::strFile);
    const bool bForeign = sOurs != I_sJournal.vecRecords.end() && strNow != sOurs->strAfter &&
                          strNow != sOurs->strBefore;
    if (MayWriteLib(I_sPlace) && !bForeign) fpAdd({LINK, strTarget, I_sJournal.strLibrary});
    return vecChanges;
}

// The lines of one text that the other does not have.
void PrintLines(const char *cpSign, const std::string &I_strText, const std::string &I_strOther)
{
    const base::LINES vecOther = base::Lines(I_strOther);
    const std::set<std::string> sOther(vecOther.begin(), vecOther.end());
    for (const std::string &strLine : base::Lines(I_strText))
        if (sOther.count(strLine) == 0)
            std::cout << "  " << cpSign << ' ' << base::Printable(strLine) << '\n';
}

void PrintChange(const PLACE &I_sPlace, const CHANGE &I_sChange)
{
    const std::string strBefore = I_sChange.strBefore.value_or("");
    std::cout << I_sPlace.Path(I_sChange.strFile) << (I_sChange.strBefore ? "\n" : " (new)\n");
    if (I_sChange.strFile == LINK)
        std::cout << "  -> " << base::Printable(I_sChange.strAfter) << '\n';
    else
    {
        PrintLines("-", strBefore, I_sChange.strAfter);
        PrintLines("+", I_sChange.strAfter, strBefore);
    }
}

// Anything but yes means no, also the end of the input.
bool IsConfirmed(const OPTIONS &I_sOptions, const char *cpQuestion)
{
    if (I_sOptions.bYes) return true;
    std::cout << cpQuestion << " [y/N] " << std::flush;
    std::string strAnswer;
    const bool bYes = std::getline(std::cin, strAnswer) &&
                      (strAnswer == "y" || strAnswer == "Y" || strAnswer == "yes");
    if (!bYes) std::cout << "\nNothing was changed.\n";
    return bYes;
}

int UndoAll(const OPTIONS &I_sOptions, const PLACE &I_sPlace, JOURNAL I_sJournal)
{
    const std::vector<UNDO> vecUndo = PlanUndo(I_sPlace, I_sJournal); // leaves the rest
    if (vecUndo.empty())
    {
        std::cout << "Nothing to undo: no earlier run changed "
                  << I_sPlace.Path(I_sPlace.strOnconfig) << ".\n";
        return base::EXIT_DONE;
    }
    for (const UNDO &sUndo : vecUndo)
        std::cout << I_sPlace.Path(sUndo.strFile) << ": " << sUndo.strText << '\n';
    if (I_sOptions.bDryRun) return base::EXIT_DONE;
    if (!IsConfirmed(I_sOptions, "Revert these changes?")) return base::EXIT_FAILED;
    Undo(I_sPlace, I_sJournal, vecUndo);
    std::cout << "Done. If /etc/logrotate.d/korva-xbsa was installed, remove it as root.\n";
    return base::EXIT_DONE;
}

int Hook(const OPTIONS &I_sOptions, const PLACE &I_sPlace, JOURNAL I_sJournal)
{
    FindLibrary(I_sOptions.strLibrary, I_sJournal);
    const std::vector<CHANGE> vecChanges = Plan(I_sPlace, I_sJournal);
    WarnOfClosedPath(I_sJournal.strLibrary);
    if (vecChanges.empty())
    {
        std::cout << "Nothing to change: the library is hooked in.\n";
        return base::EXIT_DONE;
    }
    for (const CHANGE &sChange : vecChanges) PrintChange(I_sPlace, sChange);
    if (I_sOptions.bDryRun) return base::EXIT_DONE;
    if (!IsConfirmed(I_sOptions, "Write these changes?")) return base::EXIT_FAILED;
    Apply(I_sPlace, I_sJournal, vecChanges);
    const std::string strFolder = "--informixdir '" + base::Printable(I_sPlace.strFolder) + "'";
    std::cout << "Done; --undo reverts it. To rotate the logs, run as root:\n"
              << "  xbsactl setup " << strFolder
              << " --logrotate >/etc/logrotate.d/korva-xbsa\nNext: xbsactl check --informix "
              << strFolder << " --onconfig '" << base::Printable(I_sPlace.strOnconfig.substr(4))
              << "'\n";
    return base::EXIT_DONE;
}
} // namespace

int Run(const OPTIONS &I_sOptions)
{
    umask(022); // the database's accounts must be able to read new files
    if (I_sOptions.bLogrotate)
    {
        std::cout << Rotation(I_sOptions);
        return base::EXIT_DONE;
    }
    const PLACE sPlace = Enter(I_sOptions);
    const JOURNAL sJournal = ReadJournal(sPlace);
    return I_sOptions.bUndo ? UndoAll(I_sOptions, sPlace, sJournal)
                            : Hook(I_sOptions, sPlace, sJournal);
}
} // namespace setup
