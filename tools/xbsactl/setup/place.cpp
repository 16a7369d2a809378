#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/file.h>

#include <algorithm>
#include <cerrno>
#include <iostream>

#include "setup/logrotate_txt.h"
#include "setup/parts.h"

namespace setup
{
namespace
{
using STAT = struct stat;

std::string AccountName(uid_t I_uAccount)
{
    const passwd *spAccount = getpwuid(I_uAccount);
    return spAccount != nullptr ? spAccount->pw_name : std::to_string(I_uAccount);
}

std::string GroupName(gid_t I_uGroup)
{
    const group *spGroup = getgrgid(I_uGroup);
    return spGroup != nullptr ? spGroup->gr_name : std::to_string(I_uGroup);
}

std::string OnconfigName(const OPTIONS &I_sOptions)
{
    std::string strName = base::OnconfigName(I_sOptions.strOnconfig);
    if (strName.front() == '.' || strName.find('/') != std::string::npos)
        throw base::USAGE_ERROR("--onconfig must be the name of a file in DIR/etc");
    return strName;
}

std::string FolderName(std::string I_strFolder)
{
    while (I_strFolder.size() > 1 && I_strFolder.back() == '/') I_strFolder.pop_back();
    if (I_strFolder.empty() || I_strFolder.front() != '/')
        throw base::USAGE_ERROR("--informixdir (or INFORMIXDIR) is not an absolute path");
    if (base::Visible(I_strFolder) != I_strFolder ||
        I_strFolder.find_first_of("'\"*?[\\") != std::string::npos)
        throw base::USAGE_ERROR(
            "--informixdir contains a quote, a wildcard or a control character");
    return I_strFolder;
}

// Null when there is none. DIR itself may be a link, because the user named it.
FOLDER OpenFolder(int I_iIn, const std::string &I_strName, const std::string &I_strPath)
{
    const int iLink = I_iIn == AT_FDCWD ? 0 : O_NOFOLLOW;
    base::CDescriptor sFolder(openat(I_iIn, I_strName.c_str(), O_PATH | O_CLOEXEC | iLink));
    if (sFolder.Get() == -1 && errno == ENOENT) return nullptr;
    if (sFolder.Get() == -1) throw base::SystemFailure(I_strPath);
    const STAT sStatus = sFolder.Status(I_strPath);
    if (S_ISLNK(sStatus.st_mode))
        throw base::FileFailure(I_strPath,
                                " is a link: setup changes nothing outside the directory");
    if (!S_ISDIR(sStatus.st_mode)) throw base::FileFailure(I_strPath + " is not a directory");
    return std::make_shared<const base::CDescriptor>(std::move(sFolder));
}

STAT OnconfigStatus(const PLACE &I_sPlace)
{
    const base::TARGET sTarget = I_sPlace.At(I_sPlace.strOnconfig);
    const std::optional<STAT> sStatus = sTarget.Status();
    if (!sStatus)
        throw base::FileFailure(sTarget.strShown, " does not exist: give its name with --onconfig");
    if (!S_ISREG(sStatus->st_mode))
        throw base::FileFailure(sTarget.strShown + " is not a regular file");
    return *sStatus;
}

// Whether others may write there. The group root does not count as others.
bool IsOpen(const STAT &I_sStatus, bool I_bGroups)
{
    const bool bGroup = (I_sStatus.st_mode & S_IWGRP) != 0 && I_sStatus.st_gid != 0;
    return (I_bGroups && bGroup) || (I_sStatus.st_mode & S_IWOTH) != 0;
}

// Everybody who may write to a directory can move a file of root's into it or out of it.
bool IsRootsOnly(const STAT &I_sFolder)
{
    return I_sFolder.st_uid == 0 && !IsOpen(I_sFolder, true);
}

// The group, if the account is a member, else the account's own: a file that root created and gave
// away still has root's group. For an account without a name nothing else is known.
gid_t GroupOf(uid_t I_uAccount, gid_t I_uGroup)
{
    const passwd *spAccount = getpwuid(I_uAccount);
    if (spAccount == nullptr) return I_uGroup;
    int iGroups = 1 << 16; // the most that the system gives a process
    std::vector<gid_t> vecGroups(static_cast<size_t>(iGroups), spAccount->pw_gid);
    getgrouplist(spAccount->pw_name, spAccount->pw_gid, vecGroups.data(), &iGroups);
    return std::ranges::count(vecGroups, I_uGroup) > 0 ? I_uGroup : spAccount->pw_gid;
}

// Permanently, so that the library, which may belong to the account, cannot undo it when it is
// loaded.
void Become(uid_t I_uAccount, gid_t I_uGroup)
{
    const passwd *spAccount = getpwuid(I_uAccount);
    const int iGroups =
        spAccount != nullptr ? initgroups(spAccount->pw_name, I_uGroup) : setgroups(1, &I_uGroup);
    if (iGroups != 0 || setresgid(I_uGroup, I_uGroup, I_uGroup) != 0 ||
        setresuid(I_uAccount, I_uAccount, I_uAccount) != 0)
        throw base::SystemFailure("becoming the account " + AccountName(I_uAccount));
}

// The owner of "/" can do everything anyway.
void CheckOwner(uid_t I_uOwner, const base::STEP &I_sStep)
{
    const uid_t uAccount = I_sStep.sStatus.st_uid;
    const base::CDescriptor sRoot(open("/", O_PATH | O_CLOEXEC));
    if (uAccount == 0 || uAccount == I_uOwner || uAccount == sRoot.Status("/").st_uid) return;
    throw base::FileFailure(
        I_sStep.sPath.string(), S_ISLNK(I_sStep.sStatus.st_mode) ? " is a link that" : "",
        " belongs to account ", uAccount,
        ", who could make the path lead elsewhere: give the path of a directory that only "
        "root and its owner can move");
}

// In a directory with a sticky bit others can move only their own files. Groups are trusted, except
// with files of root.
void CheckWriters(uid_t I_uOwner, const base::STEP &I_sStep)
{
    const std::string strFolder = I_sStep.sPath.parent_path();
    const STAT sStatus = I_sStep.sFolder.Status(strFolder);
    if ((sStatus.st_mode & S_ISVTX) != 0 || !IsOpen(sStatus, I_uOwner == 0)) return;
    throw base::FileFailure("others may write to ", strFolder,
                            ", and could make the path lead "
                            "elsewhere: take away their write permission first (chmod)");
}

// Checks who could make the path lead to another directory. If the path is used once: only the
// owners of links; if it is used again later, also accounts that own a directory on it or may write
// there.
void CheckWay(const std::string &I_strFolder, uid_t I_uOwner, bool I_bAgain)
{
    base::FindTarget(I_strFolder, [=](const base::STEP &sStep) {
        if (I_bAgain) CheckWriters(I_uOwner, sStep);
        if (I_bAgain || S_ISLNK(sStep.sStatus.st_mode)) CheckOwner(I_uOwner, sStep);
    });
}

void TakeAccount(const PLACE &I_sPlace, const base::CDescriptor &I_sFolder)
{
    const STAT sStatus = OnconfigStatus(I_sPlace);
    const std::string strFile = I_sPlace.Path(I_sPlace.strOnconfig);
    const std::string strName = AccountName(sStatus.st_uid);
    if (geteuid() != 0) return;
    const STAT sFolder = I_sFolder.Status(I_sPlace.strFolder);
    const STAT sEtc = I_sPlace.spEtc->Status(I_sPlace.Path("etc"));
    CheckWay(I_sPlace.strFolder, sFolder.st_uid, false);
    if (sStatus.st_uid == 0 && !(IsRootsOnly(sFolder) && IsRootsOnly(sEtc)))
        throw base::FileFailure(
            strFile, " belongs to root, but others may write to its directory: give it to the "
                     "database's account first (chown)");
    if (sStatus.st_uid == 0) return;
    if (GroupOf(sStatus.st_uid, sStatus.st_gid) != sStatus.st_gid)
        throw base::FileFailure(
            strFile + " has the group " + GroupName(sStatus.st_gid) + ", but " + strName +
            " is not a member: change the file's group to one of this account's first (chgrp)");
    Become(sStatus.st_uid, sStatus.st_gid);
    std::cout << "# As " << strName << ", who owns " << strFile << '\n';
}

// Locks the directory itself, so that nothing is created before the prompt. Without the right to
// read it, setup cannot change anything either.
base::CDescriptor Lock(const PLACE &I_sPlace)
{
    base::CDescriptor sFolder(
        openat(I_sPlace.spEtc->Get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (sFolder.Get() == -1) throw base::SystemFailure(I_sPlace.Path("etc"));
    if (flock(sFolder.Get(), LOCK_EX | LOCK_NB) != 0)
        throw base::FileFailure("another setup is running in " + I_sPlace.strFolder +
                                ": wait until it ends; nothing was changed");
    return sFolder;
}
} // namespace

PLACE Enter(const OPTIONS &I_sOptions)
{
    PLACE sPlace;
    sPlace.strFolder = FolderName(I_sOptions.strInformixDir);
    const auto spFolder = OpenFolder(AT_FDCWD, sPlace.strFolder, sPlace.strFolder);
    if (spFolder != nullptr) sPlace.spEtc = OpenFolder(spFolder->Get(), "etc", sPlace.Path("etc"));
    if (sPlace.spEtc == nullptr)
        throw base::FileFailure(sPlace.Path("etc"),
                                " is missing; is --informixdir an INFORMIXDIR?");
    sPlace.spLib = OpenFolder(spFolder->Get(), "lib", sPlace.Path("lib"));
    sPlace.strOnconfig = "etc/" + OnconfigName(I_sOptions);
    TakeAccount(sPlace, *spFolder);
    sPlace.sLock = Lock(sPlace);
    return sPlace;
}

bool MayWriteLib(const PLACE &I_sPlace)
{
    const std::string strLib = I_sPlace.Path("lib");
    if (I_sPlace.spLib == nullptr) return false;
    const bool bRoot = geteuid() == 0;
    const bool bMay = bRoot ? IsRootsOnly(I_sPlace.spLib->Status(strLib))
                            : faccessat(I_sPlace.spLib->Get(), ".", W_OK | X_OK, 0) == 0;
    if (!bMay)
        std::cout << "# No link in " << strLib
                  << (bRoot ? ": others may write there\n"
                            : ": this account may not write there\n");
    return bMay;
}

std::string Rotation(const OPTIONS &I_sOptions)
{
    const std::string strFolder = FolderName(I_sOptions.strInformixDir);
    const auto spFolder = OpenFolder(AT_FDCWD, strFolder, strFolder);
    if (spFolder == nullptr) throw base::FileFailure(strFolder + " does not exist");
    const STAT sStatus = spFolder->Status(strFolder);
    if (sStatus.st_uid == 0 && !IsRootsOnly(sStatus))
        throw base::FileFailure(
            strFolder, " belongs to root, but others may write to it: logrotate would work there "
                       "with root's rights");
    CheckWay(strFolder, sStatus.st_uid, true); // logrotate follows it again, as this account
    std::string strText(LOGROTATE_TXT);
    const auto fpFill = [&strText](const std::string &strMark, const std::string &strValue) {
        strText.replace(strText.find(strMark), strMark.size(), strValue);
    };
    // From the last to the first: inserted values are not searched.
    fpFill("%GROUP%", GroupName(GroupOf(sStatus.st_uid, sStatus.st_gid)));
    fpFill("%ACCOUNT%", AccountName(sStatus.st_uid));
    fpFill("%FOLDER%", strFolder);
    return strText;
}
} // namespace setup
