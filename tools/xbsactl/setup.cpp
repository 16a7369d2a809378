#include "setup.h"

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <iostream>
#include <sstream>

#include "errors.h"
#include "setup_change.h"
#include "setup_guest.h"
#include "setup_text.h"

namespace
{
struct stat Status(const std::string &I_strPath, const char *cpMissing)
{
    struct stat sStat
    {
    };
    if (lstat(I_strPath.c_str(), &sStat) == 0) return sStat;
    const bool bFolder = I_strPath.size() > 2 && I_strPath.rfind("/.") == I_strPath.size() - 2;
    if (errno == ENOENT || errno == ENOTDIR)
        throw FAILURE(I_strPath.substr(0, I_strPath.size() - (bFolder ? 2 : 0)) + cpMissing);
    throw SystemFailure(I_strPath);
}

std::string OnconfigName(const SETTINGS &I_sSettings)
{
    const char *cpVariable = getenv("ONCONFIG");
    std::string strName = I_sSettings.strOnconfig;
    if (strName.empty())
        strName = cpVariable != nullptr && *cpVariable != '\0' ? cpVariable : "onconfig";
    if (strName.front() == '.' || strName.find('/') != std::string::npos)
        throw USAGE_ERROR("--onconfig is the name of a file in DIR/etc");
    return strName;
}

PLACE FindPlace(const SETTINGS &I_sSettings)
{
    PLACE sPlace;
    sPlace.strFolder = I_sSettings.strInformixDir;
    while (sPlace.strFolder.size() > 1 && sPlace.strFolder.back() == '/')
        sPlace.strFolder.pop_back();
    if (sPlace.strFolder.empty() || sPlace.strFolder.front() != '/')
        throw USAGE_ERROR("--informixdir is no absolute path");
    if (HasControlCharacter(sPlace.strFolder) ||
        sPlace.strFolder.find_first_of("\"*?[\\") != std::string::npos)
        throw USAGE_ERROR("--informixdir holds a quote, a pattern or a control character");
    if (!S_ISDIR(Status(sPlace.strFolder + "/etc/.", " is missing: no database's folder").st_mode))
        throw FAILURE(sPlace.strFolder + "/etc is no folder: no database's folder");

    sPlace.strOnconfig = "etc/" + OnconfigName(I_sSettings);
    const struct stat sOnconfig = Status(sPlace.strFolder + "/" + sPlace.strOnconfig,
                                         " does not exist: give its name with --onconfig");
    if (!S_ISREG(sOnconfig.st_mode))
        throw FAILURE(sPlace.strFolder + "/" + sPlace.strOnconfig + " is no plain file");
    sPlace.uOwner = sOnconfig.st_uid;
    sPlace.uGroup = sOnconfig.st_gid;
    return sPlace;
}

// Account and group that logrotate becomes: a folder that is not root's is not root's to write in.
std::string FolderOwner(const PLACE &I_sPlace)
{
    const struct stat sStat = Status(I_sPlace.strFolder + "/.", " does not exist");
    const passwd *spOwner = getpwuid(sStat.st_uid);
    const std::string strOwner =
        spOwner != nullptr ? spOwner->pw_name : std::to_string(sStat.st_uid);
    const group *spGroup = getgrgid(sStat.st_gid);
    return strOwner + " " + (spGroup != nullptr ? spGroup->gr_name : std::to_string(sStat.st_gid));
}

CHANGE OnconfigChange(const PLACE &I_sPlace, const std::string &I_strLibrary)
{
    CHANGE sChange{I_sPlace.strOnconfig, false,
                   setupfiles_Content(I_sPlace, I_sPlace.strOnconfig, false), ""};
    try
    {
        sChange.strAfter = setuptext_Onconfig(sChange.strBefore.value_or(""), I_strLibrary);
    } catch (const FAILURE &sFailure)
    {
        throw FAILURE(I_sPlace.strFolder + "/" + sChange.strFile + ": " + sFailure.what() +
                      ": put it right by hand first");
    }
    return sChange;
}

// A link that somebody else has changed since is theirs.
bool IsLinkWanted(const PLACE &I_sPlace, const JOURNAL &I_sJournal,
                  const std::optional<std::string> &I_strTarget)
{
    if (access((I_sPlace.strFolder + "/lib").c_str(), F_OK) != 0) return false;
    const RECORD *spRecord = I_sJournal.Find(SETUP_LINK);
    const std::string strNow = I_strTarget ? setupfiles_Hash(*I_strTarget) : "";
    return spRecord == nullptr || strNow == spRecord->strAfter || strNow == spRecord->strBefore;
}

std::vector<CHANGE> Plan(const PLACE &I_sPlace, const JOURNAL &I_sJournal, const GUEST &I_sGuest)
{
    std::vector<CHANGE> vecAll = {OnconfigChange(I_sPlace, I_sGuest.strPath)};
    const std::optional<std::string> strRows = setupfiles_Content(I_sPlace, SETUP_VERSIONS, false);
    vecAll.push_back({SETUP_VERSIONS, false, strRows,
                      setuptext_Versions(strRows.value_or(""), I_sGuest.strRow)});
    const std::optional<std::string> strTarget = setupfiles_Content(I_sPlace, SETUP_LINK, true);
    if (IsLinkWanted(I_sPlace, I_sJournal, strTarget))
        vecAll.push_back({SETUP_LINK, true, strTarget, I_sGuest.strPath});
    if (!setupfiles_Content(I_sPlace, SETUP_LOGROTATE, false))
        vecAll.push_back({SETUP_LOGROTATE, false, std::nullopt,
                          setuptext_Logrotate(I_sPlace.strFolder, FolderOwner(I_sPlace))});

    std::vector<CHANGE> vecChanges;
    std::copy_if(vecAll.begin(), vecAll.end(), std::back_inserter(vecChanges),
                 [](const CHANGE &sChange) { return sChange.strBefore != sChange.strAfter; });
    return vecChanges;
}

// The lines of one text that the other does not have.
void PrintLines(const char *cpSign, const std::string &I_strText, const std::string &I_strOther)
{
    std::istringstream sText(I_strText);
    for (std::string strLine; std::getline(sText, strLine);)
    {
        const std::string strWhole = "\n" + strLine + "\n";
        if (("\n" + I_strOther).find(strWhole) == std::string::npos)
            std::cout << "  " << cpSign << ' ' << strLine << '\n';
    }
}

void PrintChange(const PLACE &I_sPlace, const CHANGE &I_sChange)
{
    std::cout << I_sPlace.strFolder << '/' << I_sChange.strFile
              << (I_sChange.strBefore ? "" : " (new)") << '\n';
    if (I_sChange.bLink)
    {
        std::cout << "  -> " << I_sChange.strAfter << '\n';
        return;
    }
    PrintLines("-", I_sChange.strBefore.value_or(""), I_sChange.strAfter);
    PrintLines("+", I_sChange.strAfter, I_sChange.strBefore.value_or(""));
}

void PrintUndo(const PLACE &I_sPlace, const UNDO &I_sUndo)
{
    const RECORD &sRecord = I_sUndo.sRecord;
    std::cout << I_sPlace.strFolder << '/' << sRecord.strFile << ": ";
    if (I_sUndo.strText)
        std::cout << "changed since setup, only our lines go"
                  << (sRecord.strCopy.empty() ? "" : "; the old file stays in " + sRecord.strCopy);
    else if (!I_sUndo.bPutBack) std::cout << "is as it was";
    else std::cout << (sRecord.strCopy.empty() ? "removed" : "put back");
    std::cout << '\n';
}

// Anything but a yes is a no, and so is the end of the input.
bool IsConfirmed(const SETTINGS &I_sSettings, const char *cpQuestion)
{
    if (I_sSettings.bYes) return true;
    std::cout << cpQuestion << " [y/N] " << std::flush;
    std::string strAnswer;
    const bool bYes = std::getline(std::cin, strAnswer) &&
                      (strAnswer == "y" || strAnswer == "Y" || strAnswer == "yes");
    if (!bYes) std::cout << "\nNothing was changed.\n";
    return bYes;
}

int Undo(const SETTINGS &I_sSettings, const PLACE &I_sPlace, const JOURNAL &I_sJournal)
{
    const std::vector<UNDO> vecUndo = setupchange_PlanUndo(I_sPlace, I_sJournal);
    if (vecUndo.empty())
    {
        std::cout << "Nothing to undo: no earlier run changed " << I_sPlace.strFolder << '/'
                  << I_sPlace.strOnconfig << ".\n";
        return EXIT_DONE;
    }
    for (const UNDO &sUndo : vecUndo) PrintUndo(I_sPlace, sUndo);
    if (I_sSettings.bDryRun) return EXIT_DONE;
    if (!IsConfirmed(I_sSettings, "Put this back?")) return EXIT_FAILED;
    setupchange_Undo(I_sPlace, I_sJournal, vecUndo);
    std::cout << "Done. If /etc/logrotate.d/korva-xbsa was installed, remove it as root.\n";
    return EXIT_DONE;
}

int Hook(const SETTINGS &I_sSettings, const PLACE &I_sPlace, JOURNAL I_sJournal)
{
    const GUEST sGuest = setupguest_Find(I_sSettings.strLibrary);
    const std::vector<CHANGE> vecChanges = Plan(I_sPlace, I_sJournal, sGuest);
    setupguest_WarnOfClosedPath(sGuest.strPath);
    if (vecChanges.empty())
    {
        std::cout << "Nothing to change: the library is hooked in.\n";
        return EXIT_DONE;
    }
    for (const CHANGE &sChange : vecChanges) PrintChange(I_sPlace, sChange);
    if (I_sSettings.bDryRun) return EXIT_DONE;
    if (!IsConfirmed(I_sSettings, "Write this?")) return EXIT_FAILED;
    I_sJournal.strRow = sGuest.strRow;
    setupchange_Apply(I_sPlace, I_sJournal, vecChanges);
    std::cout << "Done; --undo puts it back. As root, when the logs are to be rotated:\n"
              << "  install -o root -g root -m 644 '" << I_sPlace.strFolder << '/'
              << SETUP_LOGROTATE
              << "' /etc/logrotate.d/korva-xbsa\nNext: xbsactl check --informix --informixdir '"
              << I_sPlace.strFolder << "'\n";
    return EXIT_DONE;
}
} // namespace

int setup_Run(const SETTINGS &I_sSettings)
{
    umask(022); // new files are for the database's accounts to read
    const PLACE sPlace = FindPlace(I_sSettings);
    const JOURNAL sJournal = setupjournal_Read(sPlace);
    return I_sSettings.bUndo ? Undo(I_sSettings, sPlace, sJournal)
                             : Hook(I_sSettings, sPlace, sJournal);
}
