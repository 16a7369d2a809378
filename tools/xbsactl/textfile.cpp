#include "textfile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "errors.h"
#include "files.h"

namespace
{
using STAT = struct stat;

constexpr off_t LARGEST = off_t{64} << 20; // far above any text of ours

// The new file takes over who may use the old one, as far as this account can give it.
bool TakeMode(int I_iFile, const STAT *spOld)
{
    if (spOld == nullptr) return fchmod(I_iFile, files_NewFileMode()) == 0;
    const bool bOwner = fchown(I_iFile, spOld->st_uid, spOld->st_gid) == 0;
    return fchmod(I_iFile, spOld->st_mode & (bOwner ? 0777U : 0700U)) == 0;
}

bool WriteAll(int I_iFile, const std::string &I_strText)
{
    size_t uWritten = 0;
    while (uWritten < I_strText.size())
    {
        const ssize_t iWritten =
            write(I_iFile, I_strText.data() + uWritten, I_strText.size() - uWritten);
        if (iWritten == -1 && errno == EINTR) continue;
        if (iWritten == -1) return false;
        uWritten += static_cast<size_t>(iWritten);
    }
    return true;
}

// Some file systems report a full disk only when the file is closed.
bool Fill(int I_iFile, const STAT *spOld, const std::string &I_strText)
{
    const bool bWritten =
        WriteAll(I_iFile, I_strText) && TakeMode(I_iFile, spOld) && fsync(I_iFile) == 0;
    const int iError = errno;
    const bool bClosed = close(I_iFile) == 0;
    if (!bWritten) errno = iError;
    return bWritten && bClosed;
}

// A pipe would be waited for, and a device or a database dump given by mistake would fill the
// memory.
void RefuseOther(int I_iFile, const std::string &I_strFile)
{
    STAT sFile{};
    const bool bPlain = fstat(I_iFile, &sFile) == 0 && S_ISREG(sFile.st_mode);
    if (bPlain && sFile.st_size <= LARGEST) return;
    close(I_iFile);
    throw FAILURE(files_Quoted(I_strFile) +
                  (bPlain ? " is larger than 64 MiB" : " is not a regular file"));
}
} // namespace

std::optional<std::string> textfile_Read(const std::string &I_strFile)
{
    const int iFile = open(I_strFile.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (iFile == -1 && errno == ENOENT) return std::nullopt;
    if (iFile == -1) throw SystemFailure(files_Quoted(I_strFile));
    RefuseOther(iFile, I_strFile);

    std::string strText;
    std::array<char, 65536> szBlock{};
    ssize_t iRead = 1;
    while (iRead > 0 || (iRead == -1 && errno == EINTR))
    {
        iRead = read(iFile, szBlock.data(), szBlock.size());
        if (iRead > 0) strText.append(szBlock.data(), static_cast<size_t>(iRead));
    }
    const int iError = errno;
    close(iFile);
    errno = iError;
    if (iRead == -1) throw SystemFailure("reading " + files_Quoted(I_strFile));
    return strText;
}

void textfile_Replace(const std::string &I_strFile, const std::string &I_strText)
{
    const std::string strTarget = files_Resolve(I_strFile);
    const std::string strFolder = files_FolderOf(strTarget);
    STAT sOld{};
    const bool bOld = stat(strTarget.c_str(), &sOld) == 0;
    if (bOld && !S_ISREG(sOld.st_mode))
        throw FAILURE(files_Quoted(I_strFile) + " is not a regular file");

    std::string strTemporary = strFolder + "/.xbsactl.XXXXXX";
    const int iFile = mkostemp(strTemporary.data(), O_CLOEXEC);
    if (iFile == -1) throw SystemFailure("temporary file for " + files_Quoted(I_strFile));
    if (!Fill(iFile, bOld ? &sOld : nullptr, I_strText) ||
        rename(strTemporary.c_str(), strTarget.c_str()) != 0)
    {
        const FAILURE sFailure = SystemFailure("writing " + files_Quoted(I_strFile));
        unlink(strTemporary.c_str());
        throw sFailure; // NOLINT(cert-err09-cpp,cert-err61-cpp,misc-throw-by-value-catch-by-reference)
    }
    files_SyncFolder(strFolder);
}
