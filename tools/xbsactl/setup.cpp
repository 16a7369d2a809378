#include "setup.h"

#include <dlfcn.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <iostream>
#include <sstream>

#include "errors.h"
#include "library.h"
#include "setup_files.h"
#include "setup_text.h"

namespace
{
constexpr const char *VERSIONS = "etc/sm_versions";
constexpr const char *LOGROTATE = "etc/xbsa.logrotate";
constexpr const char *LINK = "lib/ibsad001.so"; // where the database looks without BAR_BSALIB_PATH

struct stat Status(const std::string &I_strPath, const char *cpMissing)
{
    struct stat sStat
    {
    };
    if (lstat(I_strPath.c_str(), &sStat) == 0) return sStat;
    if (errno == ENOENT || errno == ENOTDIR) throw FAILURE(I_strPath + cpMissing);
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
    if (!S_ISDIR(
            Status(sPlace.strFolder + "/etc/.", ": no database's folder, it has no etc").st_mode))
        throw FAILURE(sPlace.strFolder + ": no database's folder, it has no etc");

    sPlace.strOnconfig = "etc/" + OnconfigName(I_sSettings);
    const struct stat sOnconfig = Status(sPlace.strFolder + "/" + sPlace.strOnconfig,
                                         " does not exist: give its name with --onconfig");
    if (!S_ISREG(sOnconfig.st_mode))
        throw FAILURE(sPlace.strFolder + "/" + sPlace.strOnconfig + " is no plain file");
    sPlace.uOwner = sOnconfig.st_uid;
    sPlace.uGroup = sOnconfig.st_gid;
    return sPlace;
}

// The folder's links are resolved, the file's are not: libxbsa.so.1 stays right after an update.
std::string AbsolutePath(const std::string &I_strFile)
{
    const size_t uSlash = I_strFile.rfind('/');
    const std::string strFolder =
        uSlash == std::string::npos ? "." : I_strFile.substr(0, uSlash + 1);
    std::array<char, PATH_MAX> szFolder{};
    if (realpath(strFolder.c_str(), szFolder.data()) == nullptr) throw SystemFailure(I_strFile);
    const std::string strPath = std::string(szFolder.data()) + "/" +
                                I_strFile.substr(uSlash == std::string::npos ? 0 : uSlash + 1);
    if (HasControlCharacter(strPath) || strPath.find_first_of(" #") != std::string::npos)
        throw FAILURE(strPath + ": an onconfig takes no path with a blank or \"#\"");
    return strPath;
}

template <typename FUNCTION> FUNCTION Find(void *vpLibrary, const char *cpName)
{
    void *vpSymbol = dlsym(vpLibrary, cpName);
    if (vpSymbol == nullptr) throw FAILURE(std::string("the library lacks ") + cpName);
    return reinterpret_cast<FUNCTION>(vpSymbol);
}

struct GUEST
{
    std::string strPath; // absolute
    std::string strRow;  // of sm_versions
};

// The provider's name has three parts: its house, the storage manager, and its version.
std::string VersionsRow(void *vpLibrary)
{
    BSA_ApiVersion sApi{};
    std::array<char, 16> szProvider{};
    std::array<char, 2> szDelimiter{};
    BSA_UInt32 uiSize = szProvider.size();
    const int iApi = Find<decltype(&BSAQueryApiVersion)>(vpLibrary, "BSAQueryApiVersion")(&sApi);
    const int iProvider = Find<decltype(&BSAQueryServiceProvider)>(
        vpLibrary, "BSAQueryServiceProvider")(&uiSize, szDelimiter.data(), szProvider.data());
    std::istringstream sParts(szProvider.data());
    std::string strHouse;
    std::string strName;
    std::string strVersion;
    std::getline(sParts, strHouse, szDelimiter[0]);
    std::getline(sParts, strName, szDelimiter[0]);
    std::getline(sParts, strVersion);
    if (iApi != BSA_RC_SUCCESS || iProvider != BSA_RC_SUCCESS || strVersion.empty())
        throw FAILURE("the library does not tell its provider and version");
    std::ostringstream sRow;
    sRow << "1|" << sApi.issue << '.' << sApi.version << '.' << sApi.level << '|' << strName << '|'
         << strVersion << '|';
    return sRow.str();
}

GUEST FindLibrary(const SETTINGS &I_sSettings)
{
    const LIBRARY sLibrary = library_Load(I_sSettings.strLibrary);
    Dl_info sInfo{};
    if (dladdr(reinterpret_cast<void *>(sLibrary.fpInit), &sInfo) == 0 ||
        sInfo.dli_fname == nullptr)
        throw FAILURE("the library's path is not known");
    void *vpLibrary = dlopen(sInfo.dli_fname, RTLD_NOW | RTLD_NOLOAD);
    if (vpLibrary == nullptr) throw FAILURE("the library's path is not known");
    return {AbsolutePath(sInfo.dli_fname), VersionsRow(vpLibrary)};
}

// The database's account must be able to reach the library.
void WarnOfClosedPath(const std::string &I_strLibrary)
{
    for (size_t uSlash = I_strLibrary.find('/', 1);; uSlash = I_strLibrary.find('/', uSlash + 1))
    {
        const std::string strPath = I_strLibrary.substr(0, uSlash);
        struct stat sStat
        {
        };
        const mode_t uNeeded = uSlash == std::string::npos ? S_IROTH : S_IXOTH;
        if (stat(strPath.c_str(), &sStat) == 0 && (sStat.st_mode & uNeeded) == 0)
            std::cout << "# " << strPath
                      << " is not open to every account: see that the database's "
                      << "account can read the library\n";
        if (uSlash == std::string::npos) return;
    }
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
        sChange.strAfter = setuptext_Onconfig(
            setuptext_OnconfigWithout(sChange.strBefore.value_or("")), I_strLibrary);
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
    const RECORD *spRecord = I_sJournal.Find(LINK);
    return spRecord == nullptr ||
           (I_strTarget && setupfiles_Hash(*I_strTarget) == spRecord->strAfter);
}

std::vector<CHANGE> Plan(const PLACE &I_sPlace, const JOURNAL &I_sJournal, const GUEST &I_sGuest)
{
    std::vector<CHANGE> vecAll = {OnconfigChange(I_sPlace, I_sGuest.strPath)};
    const std::optional<std::string> strRows = setupfiles_Content(I_sPlace, VERSIONS, false);
    vecAll.push_back(
        {VERSIONS, false, strRows, setuptext_Versions(strRows.value_or(""), I_sGuest.strRow)});
    const std::optional<std::string> strTarget = setupfiles_Content(I_sPlace, LINK, true);
    if (IsLinkWanted(I_sPlace, I_sJournal, strTarget))
        vecAll.push_back({LINK, true, strTarget, I_sGuest.strPath});
    if (!setupfiles_Content(I_sPlace, LOGROTATE, false))
        vecAll.push_back({LOGROTATE, false, std::nullopt,
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
    const std::vector<UNDO> vecUndo = setupfiles_PlanUndo(I_sPlace, I_sJournal);
    if (vecUndo.empty())
    {
        std::cout << "Nothing to undo: no earlier run changed " << I_sPlace.strFolder << '/'
                  << I_sPlace.strOnconfig << ".\n";
        return EXIT_DONE;
    }
    for (const UNDO &sUndo : vecUndo) PrintUndo(I_sPlace, sUndo);
    if (I_sSettings.bDryRun) return EXIT_DONE;
    if (!IsConfirmed(I_sSettings, "Put this back?")) return EXIT_FAILED;
    setupfiles_Undo(I_sPlace, I_sJournal, vecUndo);
    std::cout << "Done. If /etc/logrotate.d/korva-xbsa was installed, remove it as root.\n";
    return EXIT_DONE;
}

int Hook(const SETTINGS &I_sSettings, const PLACE &I_sPlace, JOURNAL I_sJournal)
{
    const GUEST sGuest = FindLibrary(I_sSettings);
    const std::vector<CHANGE> vecChanges = Plan(I_sPlace, I_sJournal, sGuest);
    WarnOfClosedPath(sGuest.strPath);
    if (vecChanges.empty())
    {
        std::cout << "Nothing to change: the library is hooked in.\n";
        return EXIT_DONE;
    }
    for (const CHANGE &sChange : vecChanges) PrintChange(I_sPlace, sChange);
    if (I_sSettings.bDryRun) return EXIT_DONE;
    if (!IsConfirmed(I_sSettings, "Write this?")) return EXIT_FAILED;
    I_sJournal.strRow = sGuest.strRow;
    setupfiles_Apply(I_sPlace, I_sJournal, vecChanges);
    std::cout << "Done; --undo puts it back. As root, when the logs are to be rotated:\n"
              << "  install -o root -g root -m 644 '" << I_sPlace.strFolder << '/' << LOGROTATE
              << "' /etc/logrotate.d/korva-xbsa\nNext: xbsactl check --informix --informixdir '"
              << I_sPlace.strFolder << "'\n";
    return EXIT_DONE;
}
} // namespace

int setup_Run(const SETTINGS &I_sSettings)
{
    umask(022); // new files are for the database's accounts to read
    const PLACE sPlace = FindPlace(I_sSettings);
    const JOURNAL sJournal = setupfiles_ReadJournal(sPlace);
    return I_sSettings.bUndo ? Undo(I_sSettings, sPlace, sJournal)
                             : Hook(I_sSettings, sPlace, sJournal);
}
