#include "setup/way.h"

#include <sys/stat.h>

#include <filesystem>

#include "base/base.h"

namespace setup
{
namespace
{
using PATH = std::filesystem::path;
using STAT = struct stat;

constexpr int MOST_LINKS = 40; // as the kernel follows

struct WAY
{
    uid_t uOwner; // of the folder at its end
    bool bLinksOnly;
    int iLinks = 0; // so far
};

STAT StatusOf(const PATH &I_sPath)
{
    STAT sStatus{};
    if (lstat(I_sPath.c_str(), &sStatus) != 0) throw base::SystemFailure(I_sPath.string());
    return sStatus;
}

// Whoever owns "/" can do everything anyway.
bool IsTrusted(const WAY &I_sWay, uid_t I_uAccount)
{
    return I_uAccount == 0 || I_uAccount == I_sWay.uOwner || I_uAccount == StatusOf("/").st_uid;
}

void CheckOwner(const WAY &I_sWay, const PATH &I_sPath, const STAT &I_sStatus)
{
    const bool bLink = S_ISLNK(I_sStatus.st_mode);
    if ((I_sWay.bLinksOnly && !bLink) || IsTrusted(I_sWay, I_sStatus.st_uid)) return;
    throw base::FAILURE(
        I_sPath.string() + (bLink ? " is a link that" : "") + " belongs to account " +
        std::to_string(I_sStatus.st_uid) +
        ", who could make the path lead elsewhere: give the path of a folder that only "
        "root and its owner can move");
}

// In a folder with a sticky bit others can move what is theirs alone. Groups are trusted, but not
// with what is root's.
void CheckWriters(const WAY &I_sWay, const PATH &I_sPath, const STAT &I_sStatus)
{
    const bool bGroup =
        I_sWay.uOwner == 0 && (I_sStatus.st_mode & S_IWGRP) != 0 && I_sStatus.st_gid != 0;
    const bool bOthers = bGroup || (I_sStatus.st_mode & S_IWOTH) != 0;
    if (I_sWay.bLinksOnly || !bOthers || (I_sStatus.st_mode & S_ISVTX) != 0) return;
    throw base::FAILURE("others may write " + I_sPath.string() +
                        ", and could make the path lead elsewhere: take their right first (chmod)");
}

void Check(WAY &X_sWay, const PATH &I_sFolder)
{
    PATH sPath = "/";
    for (const PATH &sPart : I_sFolder.relative_path())
    {
        CheckWriters(X_sWay, sPath, StatusOf(sPath));
        sPath /= sPart;
        const STAT sStatus = StatusOf(sPath);
        CheckOwner(X_sWay, sPath, sStatus);
        if (!S_ISLNK(sStatus.st_mode)) continue;
        if (++X_sWay.iLinks > MOST_LINKS)
            throw base::FAILURE(I_sFolder.string() + ": too many links");
        sPath = sPath.parent_path() / std::filesystem::read_symlink(sPath);
        Check(X_sWay, sPath);
    }
}
} // namespace

void CheckLinks(const std::string &I_strFolder, uid_t I_uOwner)
{
    WAY sWay{I_uOwner, true};
    Check(sWay, I_strFolder);
}

void CheckAll(const std::string &I_strFolder, uid_t I_uOwner)
{
    WAY sWay{I_uOwner, false};
    Check(sWay, I_strFolder);
}
} // namespace setup
