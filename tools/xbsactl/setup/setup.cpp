#include "setup/setup.h"

#include <sys/stat.h>

#include <algorithm>
#include <iostream>
#include <set>
#include <sstream>

#include "base/base.h"
#include "setup/change.h"
#include "setup/guest.h"
#include "setup/text.h"

namespace setup
{
namespace
{
CHANGE OnconfigChange(const PLACE &I_sPlace, const std::string &I_strLibrary)
{
    CHANGE sChange{I_sPlace.strOnconfig, false, Content(I_sPlace, I_sPlace.strOnconfig, false), ""};
    try
    {
        sChange.strAfter = Onconfig(sChange.strBefore.value_or(""), I_strLibrary);
    } catch (const base::FAILURE &sFailure)
    {
        throw base::FAILURE(I_sPlace.strFolder + "/" + sChange.strFile + ": " + sFailure.what() +
                            ": put it right by hand first");
    }
    return sChange;
}

// A link that somebody else has changed since is theirs.
bool IsLinkWanted(const PLACE &I_sPlace, const JOURNAL &I_sJournal,
                  const std::optional<std::string> &I_strTarget)
{
    if (!MayWriteLib(I_sPlace)) return false;
    const RECORD *spRecord = I_sJournal.Find(SETUP_LINK);
    const std::string strNow = I_strTarget ? Hash(*I_strTarget) : "";
    return spRecord == nullptr || strNow == spRecord->strAfter || strNow == spRecord->strBefore;
}

std::vector<CHANGE> Plan(const PLACE &I_sPlace, const JOURNAL &I_sJournal, const GUEST &I_sGuest)
{
    std::vector<CHANGE> vecAll = {OnconfigChange(I_sPlace, I_sGuest.strPath)};
    const std::optional<std::string> strRows = Content(I_sPlace, SETUP_VERSIONS, false);
    vecAll.push_back(
        {SETUP_VERSIONS, false, strRows, Versions(strRows.value_or(""), I_sGuest.strRow)});
    const std::optional<std::string> strTarget = Content(I_sPlace, SETUP_LINK, true);
    if (IsLinkWanted(I_sPlace, I_sJournal, strTarget))
        vecAll.push_back({SETUP_LINK, true, strTarget, I_sGuest.strPath});

    std::vector<CHANGE> vecChanges;
    std::copy_if(vecAll.begin(), vecAll.end(), std::back_inserter(vecChanges),
                 [](const CHANGE &sChange) { return sChange.strBefore != sChange.strAfter; });
    return vecChanges;
}

std::vector<std::string> Lines(const std::string &I_strText)
{
    std::vector<std::string> vecLines;
    std::istringstream sText(I_strText);
    for (std::string strLine; std::getline(sText, strLine);) vecLines.push_back(strLine);
    return vecLines;
}

// The lines of one text that the other does not have.
void PrintLines(const char *cpSign, const std::string &I_strText, const std::string &I_strOther)
{
    const std::vector<std::string> vecOther = Lines(I_strOther);
    const std::set<std::string> sOther(vecOther.begin(), vecOther.end());
    for (const std::string &strLine : Lines(I_strText))
        if (sOther.count(strLine) == 0)
            std::cout << "  " << cpSign << ' ' << base::Printable(strLine) << '\n';
}

void PrintChange(const PLACE &I_sPlace, const CHANGE &I_sChange)
{
    std::cout << base::Printable(PathOf(I_sPlace, I_sChange.strFile))
              << (I_sChange.strBefore ? "" : " (new)") << '\n';
    if (I_sChange.bLink)
    {
        std::cout << "  -> " << base::Printable(I_sChange.strAfter) << '\n';
        return;
    }
    PrintLines("-", I_sChange.strBefore.value_or(""), I_sChange.strAfter);
    PrintLines("+", I_sChange.strAfter, I_sChange.strBefore.value_or(""));
}

void PrintUndo(const PLACE &I_sPlace, const UNDO &I_sUndo)
{
    const RECORD &sRecord = I_sUndo.sRecord;
    std::cout << base::Printable(PathOf(I_sPlace, sRecord.strFile)) << ": ";
    if (I_sUndo.strText)
        std::cout << "changed since setup, only our lines go"
                  << (sRecord.strCopy.empty()
                          ? ""
                          : "; the old file stays in " + base::Printable(sRecord.strCopy));
    else if (!I_sUndo.bPutBack) std::cout << "is as it was";
    else std::cout << (sRecord.strCopy.empty() ? "removed" : "put back");
    std::cout << '\n';
}

// Anything but a yes is a no, and so is the end of the input.
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

int Undo(const OPTIONS &I_sOptions, const PLACE &I_sPlace, const JOURNAL &I_sJournal)
{
    const std::vector<UNDO> vecUndo = PlanUndo(I_sPlace, I_sJournal);
    if (vecUndo.empty())
    {
        std::cout << "Nothing to undo: no earlier run changed "
                  << base::Printable(PathOf(I_sPlace, I_sPlace.strOnconfig)) << ".\n";
        return base::EXIT_DONE;
    }
    for (const UNDO &sUndo : vecUndo) PrintUndo(I_sPlace, sUndo);
    if (I_sOptions.bDryRun) return base::EXIT_DONE;
    if (!IsConfirmed(I_sOptions, "Put this back?")) return base::EXIT_FAILED;
    TakeBackAll(I_sPlace, I_sJournal, vecUndo);
    std::cout << "Done. If /etc/logrotate.d/korva-xbsa was installed, remove it as root.\n";
    return base::EXIT_DONE;
}

int Hook(const OPTIONS &I_sOptions, const PLACE &I_sPlace, JOURNAL I_sJournal)
{
    const GUEST sGuest = FindGuest(I_sOptions.strLibrary);
    const std::vector<CHANGE> vecChanges = Plan(I_sPlace, I_sJournal, sGuest);
    WarnOfClosedPath(sGuest.strPath);
    if (vecChanges.empty())
    {
        std::cout << "Nothing to change: the library is hooked in.\n";
        return base::EXIT_DONE;
    }
    for (const CHANGE &sChange : vecChanges) PrintChange(I_sPlace, sChange);
    if (I_sOptions.bDryRun) return base::EXIT_DONE;
    if (!IsConfirmed(I_sOptions, "Write this?")) return base::EXIT_FAILED;
    I_sJournal.strRow = sGuest.strRow;
    Apply(I_sPlace, I_sJournal, vecChanges);
    const std::string strFolder = "--informixdir '" + base::Printable(I_sPlace.strFolder) + "'";
    std::cout << "Done; --undo puts it back. As root, when the logs are to be rotated:\n"
              << "  xbsactl setup " << strFolder
              << " --logrotate >/etc/logrotate.d/korva-xbsa\nNext: xbsactl check --informix "
              << strFolder << '\n';
    return base::EXIT_DONE;
}
} // namespace

int Run(const OPTIONS &I_sOptions)
{
    umask(022); // new files are for the database's accounts to read
    if (I_sOptions.bLogrotate)
    {
        std::cout << Rotation(I_sOptions);
        return base::EXIT_DONE;
    }
    const PLACE sPlace = Enter(I_sOptions);
    const JOURNAL sJournal = ReadJournal(sPlace);
    return I_sOptions.bUndo ? Undo(I_sOptions, sPlace, sJournal)
                            : Hook(I_sOptions, sPlace, sJournal);
}
} // namespace setup
