#include "setup/place.h"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <iostream>
#include <vector>

#include "base/base.h"
#include "setup/text.h"
#include "setup/way.h"

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
    const char *cpVariable = getenv("ONCONFIG");
    std::string strName = I_sOptions.strOnconfig;
    if (strName.empty())
        strName = cpVariable != nullptr && *cpVariable != '\0' ? cpVariable : "onconfig";
    if (strName.front() == '.' || strName.find('/') != std::string::npos)
        throw base::USAGE_ERROR("--onconfig is the name of a file in DIR/etc");
    return strName;
}

std::string FolderName(std::string I_strFolder)
{
    while (I_strFolder.size() > 1 && I_strFolder.back() == '/') I_strFolder.pop_back();
    if (I_strFolder.empty() || I_strFolder.front() != '/')
        throw base::USAGE_ERROR("--informixdir is no absolute path");
    if (base::Visible(I_strFolder) != I_strFolder ||
        I_strFolder.find_first_of("'\"*?[\\") != std::string::npos)
        throw base::USAGE_ERROR("--informixdir holds a quote, a pattern or a control character");
    return I_strFolder;
}

// Null when there is none. DIR itself may be a link: whoever runs this named it.
std::shared_ptr<const base::CDescriptor> OpenFolder(int I_iIn, const std::string &I_strName,
                                                    const std::string &I_strPath)
{
    const int iLink = I_iIn == AT_FDCWD ? 0 : O_NOFOLLOW;
    base::CDescriptor sFolder(openat(I_iIn, I_strName.c_str(), O_PATH | O_CLOEXEC | iLink));
    if (sFolder.Get() == -1 && errno == ENOENT) return nullptr;
    STAT sStatus{};
    if (sFolder.Get() == -1 || fstat(sFolder.Get(), &sStatus) != 0)
        throw base::SystemFailure(I_strPath);
    if (S_ISLNK(sStatus.st_mode))
        throw base::FAILURE(I_strPath + " is a link: setup changes nothing outside of the folder");
    if (!S_ISDIR(sStatus.st_mode))
        throw base::FAILURE(I_strPath + " is not a directory: no database's folder");
    return std::make_shared<const base::CDescriptor>(std::move(sFolder));
}

STAT OnconfigStatus(const PLACE &I_sPlace)
{
    const base::TARGET sTarget{I_sPlace.spEtc, I_sPlace.strOnconfig.substr(4),
                               PathOf(I_sPlace, I_sPlace.strOnconfig)};
    const std::optional<STAT> sStatus = sTarget.Status();
    if (!sStatus)
        throw base::FAILURE(sTarget.strShown + " does not exist: give its name with --onconfig");
    if (!S_ISREG(sStatus->st_mode)) throw base::FAILURE(sTarget.strShown + " is no plain file");
    return *sStatus;
}

STAT StatusOf(const base::CDescriptor &I_sFolder, const std::string &I_strFolder)
{
    STAT sStatus{};
    if (fstat(I_sFolder.Get(), &sStatus) != 0) throw base::SystemFailure(I_strFolder);
    return sStatus;
}

// Whoever may write a folder may put a file of root's there, or take one away.
bool IsRootsOnly(const base::CDescriptor &I_sFolder)
{
    STAT sStatus{};
    if (fstat(I_sFolder.Get(), &sStatus) != 0) return false;
    const bool bGroup = (sStatus.st_mode & S_IWGRP) != 0 && sStatus.st_gid != 0;
    return sStatus.st_uid == 0 && !bGroup && (sStatus.st_mode & S_IWOTH) == 0;
}

// The group, when the account is in it, else the account's own: a file that root made and gave away
// has root's group still. For an account without a name it is all that is known.
gid_t GroupOf(uid_t I_uAccount, gid_t I_uGroup)
{
    const passwd *spAccount = getpwuid(I_uAccount);
    if (spAccount == nullptr) return I_uGroup;
    int iGroups = 1 << 16; // the most that the system gives a process
    std::vector<gid_t> vecGroups(static_cast<size_t>(iGroups));
    iGroups = getgrouplist(spAccount->pw_name, spAccount->pw_gid, vecGroups.data(), &iGroups);
    vecGroups.resize(static_cast<size_t>(std::max(iGroups, 0)));
    const bool bIn = std::find(vecGroups.begin(), vecGroups.end(), I_uGroup) != vecGroups.end();
    return bIn ? I_uGroup : spAccount->pw_gid;
}

// For good, so that the library which is loaded later, and may be the account's own, cannot undo it.
void Become(uid_t I_uAccount, gid_t I_uGroup)
{
    const passwd *spAccount = getpwuid(I_uAccount);
    const int iGroups =
        spAccount != nullptr ? initgroups(spAccount->pw_name, I_uGroup) : setgroups(1, &I_uGroup);
    if (iGroups != 0 || setresgid(I_uGroup, I_uGroup, I_uGroup) != 0 ||
        setresuid(I_uAccount, I_uAccount, I_uAccount) != 0)
        throw base::SystemFailure("becoming the account " + AccountName(I_uAccount));
}

void TakeAccount(const PLACE &I_sPlace, const base::CDescriptor &I_sFolder)
{
    const STAT sStatus = OnconfigStatus(I_sPlace);
    const std::string strFile = PathOf(I_sPlace, I_sPlace.strOnconfig);
    if (geteuid() != 0) return;
    CheckLinks(I_sPlace.strFolder, StatusOf(I_sFolder, I_sPlace.strFolder).st_uid);
    if (sStatus.st_uid != 0)
    {
        if (GroupOf(sStatus.st_uid, sStatus.st_gid) != sStatus.st_gid)
            throw base::FAILURE(strFile + " has the group " + GroupName(sStatus.st_gid) +
                                ", which " + AccountName(sStatus.st_uid) +
                                " is not in: give it one of this account's groups first (chgrp)");
        Become(sStatus.st_uid, sStatus.st_gid);
        std::cout << "# As " << AccountName(sStatus.st_uid) << ", who owns "
                  << base::Printable(strFile) << '\n';
        return;
    }
    if (!IsRootsOnly(I_sFolder) || !IsRootsOnly(*I_sPlace.spEtc))
        throw base::FAILURE(strFile + " is root's, but others may write its folder: give it to the "
                                      "database's account first (chown)");
}
} // namespace

std::string PathOf(const PLACE &I_sPlace, const std::string &I_strFile)
{
    return I_sPlace.strFolder + "/" + I_strFile;
}

PLACE Enter(const OPTIONS &I_sOptions)
{
    PLACE sPlace;
    sPlace.strFolder = FolderName(I_sOptions.strInformixDir);
    const std::string strEtc = PathOf(sPlace, "etc");
    const auto spFolder = OpenFolder(AT_FDCWD, sPlace.strFolder, sPlace.strFolder);
    if (spFolder != nullptr) sPlace.spEtc = OpenFolder(spFolder->Get(), "etc", strEtc);
    if (sPlace.spEtc == nullptr) throw base::FAILURE(strEtc + " is missing: no database's folder");
    sPlace.spLib = OpenFolder(spFolder->Get(), "lib", PathOf(sPlace, "lib"));
    sPlace.strOnconfig = "etc/" + OnconfigName(I_sOptions);
    TakeAccount(sPlace, *spFolder);
    return sPlace;
}

bool MayWriteLib(const PLACE &I_sPlace)
{
    if (I_sPlace.spLib == nullptr) return false;
    const bool bMay = geteuid() == 0 ? IsRootsOnly(*I_sPlace.spLib)
                                     : faccessat(I_sPlace.spLib->Get(), ".", W_OK | X_OK, 0) == 0;
    if (!bMay)
        std::cout << "# No link in " << PathOf(I_sPlace, "lib") << ": "
                  << (geteuid() == 0 ? "others may write there"
                                     : "this account may not write there")
                  << '\n';
    return bMay;
}

std::string Rotation(const OPTIONS &I_sOptions)
{
    const std::string strFolder = FolderName(I_sOptions.strInformixDir);
    const auto spFolder = OpenFolder(AT_FDCWD, strFolder, strFolder);
    if (spFolder == nullptr) throw base::FAILURE(strFolder + " does not exist");
    const STAT sStatus = StatusOf(*spFolder, strFolder);
    if (sStatus.st_uid == 0 && !IsRootsOnly(*spFolder))
        throw base::FAILURE(strFolder +
                            " is root's, but others may write it: logrotate would work there "
                            "with root's rights");
    CheckAll(strFolder, sStatus.st_uid); // logrotate walks it again, as this account
    return Logrotate(strFolder, AccountName(sStatus.st_uid) + " " +
                                    GroupName(GroupOf(sStatus.st_uid, sStatus.st_gid)));
}
} // namespace setup
