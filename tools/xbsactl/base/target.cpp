#include "base/base.h"

#include <fcntl.h>

#include <array>
#include <cerrno>
#include <climits>

namespace base
{
namespace
{
using STAT = struct stat;

constexpr int MOST_LINKS = 40; // as the kernel follows

CDescriptor OpenName(int I_iFolder, const std::string &I_strName)
{
    return CDescriptor(openat(I_iFolder, I_strName.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
}

// Of what others put there the kernel protects us in some of these folders alone, as its settings
// say, and only when a name is opened to be created.
void RefusePlanted(int I_iFolder, uid_t I_uOwner, const std::string &I_strShown)
{
    const STAT sFolder = StatusOf(I_iFolder, I_strShown);
    const bool bGroup = (sFolder.st_mode & S_ISVTX) != 0 && (sFolder.st_mode & S_IWGRP) != 0;
    const bool bShared = bGroup || (sFolder.st_mode & S_IWOTH) != 0;
    if (bShared && I_uOwner != geteuid() && I_uOwner != sFolder.st_uid)
        throw FileFailure(I_strShown + " belongs to another account (" + std::to_string(I_uOwner) +
                          "), in a folder that others may write: take another name or folder");
}

// Takes the next part off the path. What is left begins with a slash, or is empty.
std::string TakePart(std::string &X_strPath)
{
    X_strPath.erase(0, X_strPath.find_first_not_of('/'));
    if (X_strPath.empty()) return "."; // it ended with a slash
    std::string strPart = X_strPath.substr(0, X_strPath.find('/'));
    X_strPath.erase(0, strPart.size());
    return strPart;
}

class CWalk
{
  public:
    explicit CWalk(const std::string &I_strFile) : strShown(Quoted(I_strFile)), strLeft(I_strFile)
    {
        Start();
    }

    TARGET Run()
    {
        std::string strPart;
        do strPart = TakePart(strLeft);
        while (!Step(strPart));
        return {std::make_shared<const CDescriptor>(std::move(sFolder)), strPart, strShown};
    }

  private:
    void Start()
    {
        if (sFolder.Get() != -1 && strLeft[0] != '/') return;
        sFolder = OpenName(AT_FDCWD, strLeft[0] == '/' ? "/" : ".");
        if (sFolder.Get() == -1) throw SystemFailure(strShown);
    }

    // Returns whether the part is the last one.
    bool Step(const std::string &I_strPart)
    {
        CDescriptor sEntry = OpenName(sFolder.Get(), I_strPart);
        if (sEntry.Get() == -1 && errno == ENOENT && strLeft.empty()) return true; // a new file
        if (sEntry.Get() == -1) throw SystemFailure(strShown);
        const STAT sStatus = StatusOf(sEntry.Get(), strShown);
        if (S_ISLNK(sStatus.st_mode)) return Follow(sEntry, sStatus.st_uid);
        RefusePlanted(sFolder.Get(), sStatus.st_uid, strShown);
        if (!strLeft.empty()) sFolder = std::move(sEntry);
        return strLeft.empty();
    }

    // The link is held open, so its owner and its text belong together.
    bool Follow(const CDescriptor &I_sLink, uid_t I_uOwner)
    {
        if (I_uOwner != geteuid() && I_uOwner != 0)
            throw FileFailure(strShown + " leads through a link that belongs to another account (" +
                              std::to_string(I_uOwner) + "): name the file that is meant");
        errno = ELOOP;
        if (++iLinks > MOST_LINKS) throw SystemFailure(strShown);
        strLeft.insert(0, LinkText(I_sLink.Get(), "", strShown));
        Start();
        return false;
    }

    std::string strShown;
    std::string strLeft; // of the path
    CDescriptor sFolder; // as far as the walk has come
    int iLinks = 0;
};
} // namespace

STAT StatusOf(int I_iFile, const std::string &I_strShown)
{
    STAT sStatus{};
    if (fstat(I_iFile, &sStatus) != 0) throw SystemFailure(I_strShown);
    return sStatus;
}

std::string LinkText(int I_iFolder, const std::string &I_strName, const std::string &I_strShown)
{
    std::array<char, PATH_MAX> szText{};
    const ssize_t iLength = readlinkat(I_iFolder, I_strName.c_str(), szText.data(), szText.size());
    if (iLength == -1) throw SystemFailure("reading " + I_strShown);
    return std::string(szText.data(), static_cast<size_t>(iLength));
}

std::optional<struct stat> TARGET::Status() const
{
    STAT sStatus{};
    const bool bThere = fstatat(Folder(), strName.c_str(), &sStatus, AT_SYMLINK_NOFOLLOW) == 0;
    if (!bThere && errno == ENOENT) return {};
    if (!bThere) throw SystemFailure(strShown);
    RefusePlanted(Folder(), sStatus.st_uid, strShown);
    return sStatus;
}

int TARGET::Open(int I_iFlags, mode_t I_uMode) const
{
    CDescriptor sFile(
        openat(Folder(), strName.c_str(), I_iFlags | O_NOFOLLOW | O_CLOEXEC, I_uMode));
    if (sFile.Get() != -1)
        RefusePlanted(Folder(), StatusOf(sFile.Get(), strShown).st_uid, strShown);
    return sFile.Release();
}

void TARGET::SyncFolder() const
{
    const CDescriptor sReadable(openat(Folder(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    // Some file systems cannot do this for a folder, and need not.
    if (sReadable.Get() == -1 || (fsync(sReadable.Get()) != 0 && errno != EINVAL))
        throw SystemFailure("the folder of " + strShown);
}

TARGET FindTarget(const std::string &I_strFile)
{
    return CWalk(I_strFile).Run();
}
} // namespace base
