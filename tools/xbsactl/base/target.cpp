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

// The kernel protects us from what others put there only in some of these directories, depending on
// its settings, and only when a name is opened to be created.
void RefusePlanted(const CDescriptor &I_sFolder, uid_t I_uOwner, const std::string &I_strShown)
{
    const STAT sFolder = I_sFolder.Status(I_strShown);
    const bool bGroup = (sFolder.st_mode & S_ISVTX) != 0 && (sFolder.st_mode & S_IWGRP) != 0;
    const bool bShared = bGroup || (sFolder.st_mode & S_IWOTH) != 0;
    if (bShared && I_uOwner != geteuid() && I_uOwner != sFolder.st_uid)
        throw FileFailure(
            I_strShown, " belongs to another account (", I_uOwner,
            "), in a directory that others may write to: use another name or directory");
}

// Removes the next part from the path. The rest begins with a slash, or is empty.
std::string TakePart(std::string &X_strPath)
{
    X_strPath.erase(0, X_strPath.find_first_not_of('/'));
    if (X_strPath.empty()) return "."; // it ended with a slash
    std::string strPart = X_strPath.substr(0, X_strPath.find('/'));
    X_strPath.erase(0, strPart.size());
    return strPart;
}
} // namespace

STAT CDescriptor::Status(const std::string &I_strShown) const
{
    STAT sStatus{};
    if (fstat(iFile, &sStatus) != 0) throw SystemFailure(I_strShown);
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
    RefusePlanted(*spFolder, sStatus.st_uid, strShown);
    return sStatus;
}

int TARGET::Open(int I_iFlags, mode_t I_uMode) const
{
    CDescriptor sFile(
        openat(Folder(), strName.c_str(), I_iFlags | O_NOFOLLOW | O_CLOEXEC, I_uMode));
    if (sFile.Get() != -1) RefusePlanted(*spFolder, sFile.Status(strShown).st_uid, strShown);
    return sFile.Release();
}

void TARGET::SyncFolder() const
{
    const CDescriptor sReadable(openat(Folder(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    // Some file systems cannot do this for a directory, and do not need it.
    if (sReadable.Get() == -1 || (fsync(sReadable.Get()) != 0 && errno != EINVAL))
        throw SystemFailure("the directory of " + strShown);
}

TARGET FindTarget(const std::string &I_strFile,
                  const std::function<void(const STEP &sStep)> &I_fpJudge)
{
    const std::string strShown = Quoted(I_strFile);
    std::string strLeft = I_strFile; // of the path
    std::filesystem::path sPath = strLeft[0] == '/' ? "/" : ".";
    CDescriptor sFolder = OpenName(AT_FDCWD, sPath);
    for (int iLinks = 0; iLinks <= MOST_LINKS;)
    {
        if (sFolder.Get() == -1) throw SystemFailure(strShown);
        const std::string strPart = TakePart(strLeft);
        CDescriptor sEntry = OpenName(sFolder.Get(), strPart);
        const bool bNew = sEntry.Get() == -1 && errno == ENOENT && strLeft.empty();
        if (sEntry.Get() == -1 && !bNew) throw SystemFailure(strShown);
        const STAT sStatus = bNew ? STAT{} : sEntry.Status(strShown);
        if (!bNew) I_fpJudge({sFolder, sPath / strPart, sStatus});
        if (S_ISLNK(sStatus.st_mode)) // held open: the text belongs to what was judged
        {
            strLeft.insert(0, LinkText(sEntry.Get(), "", strShown));
            if (strLeft[0] == '/') sFolder = OpenName(AT_FDCWD, sPath = "/");
            iLinks++;
            continue;
        }
        if (strLeft.empty())
            return {std::make_shared<const CDescriptor>(std::move(sFolder)), strPart, strShown};
        sFolder = std::move(sEntry);
        sPath /= strPart;
    }
    errno = ELOOP;
    throw SystemFailure(strShown);
}

TARGET FindTarget(const std::string &I_strFile)
{
    const std::string strShown = Quoted(I_strFile);
    return FindTarget(I_strFile, [&strShown](const STEP &sStep) {
        const uid_t uOwner = sStep.sStatus.st_uid;
        if (!S_ISLNK(sStep.sStatus.st_mode)) RefusePlanted(sStep.sFolder, uOwner, strShown);
        else if (uOwner != geteuid() && uOwner != 0)
            throw FileFailure(strShown, " leads through a link that belongs to another account (",
                              uOwner, "): give the path of the file itself");
    });
}
} // namespace base
