#include "files.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "errors.h"
#include "stop.h"

std::string files_Quoted(const std::string &I_strFile)
{
    return "\"" + Printable(I_strFile) + "\"";
}

std::string files_FolderOf(const std::string &I_strFile)
{
    const size_t uSlash = I_strFile.rfind('/');
    return uSlash == std::string::npos ? "." : I_strFile.substr(0, uSlash + 1);
}

std::string files_Resolve(const std::string &I_strFile)
{
    struct stat sLink
    {
    };
    if (lstat(I_strFile.c_str(), &sLink) != 0 || !S_ISLNK(sLink.st_mode)) return I_strFile;
    char *cpPath = realpath(I_strFile.c_str(), nullptr);
    if (cpPath == nullptr) throw SystemFailure(files_Quoted(I_strFile));
    std::string strPath = cpPath;
    free(cpPath);
    return strPath;
}

void files_SyncFolder(const std::string &I_strFolder)
{
    const int iFolder = open(I_strFolder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (iFolder == -1) throw SystemFailure(files_Quoted(I_strFolder));
    // Some file systems cannot do this for a folder, and need not.
    const bool bFailed = fsync(iFolder) != 0 && errno != EINVAL;
    close(iFolder);
    if (bFailed) throw SystemFailure(files_Quoted(I_strFolder));
}

namespace
{
mode_t TakeUmask()
{
    const mode_t uMask = umask(0);
    umask(uMask);
    return uMask;
}
} // namespace

// Asked for once: meanwhile the mask is another one for the whole process.
mode_t files_NewFileMode()
{
    static const mode_t uMask = TakeUmask();
    return 0666 & ~uMask;
}

void files_ReserveStandard()
{
    for (const int iFile : {0, 1, 2})
    {
        if (fcntl(iFile, F_GETFD) == -1) // the lowest free number is the one that is missing
            static_cast<void>(open("/dev/null", iFile == 0 ? O_WRONLY : O_RDONLY));
    }
}

CInput::CInput(const std::string &I_strFile)
    : strName(I_strFile == "-" ? "standard input" : files_Quoted(I_strFile))
{
    if (I_strFile != "-") iFile = open(I_strFile.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat sStat
    {
    };
    if (iFile == -1 || fstat(iFile, &sStat) != 0) throw SystemFailure(strName);
    if (S_ISDIR(sStat.st_mode)) throw FAILURE(strName + ": is a folder");
    const off_t iPlace = S_ISREG(sStat.st_mode) ? lseek(iFile, 0, SEEK_CUR) : 0;
    if (S_ISREG(sStat.st_mode) && iPlace >= 0 && iPlace < sStat.st_size)
        uSize = static_cast<uint64_t>(sStat.st_size - iPlace);
}

CInput::~CInput()
{
    if (iFile > 2) close(iFile);
}

uint64_t CInput::Size() const
{
    return uSize;
}

size_t CInput::Read(char *cpData, size_t I_uRoom)
{
    size_t uRead = 0;
    while (uRead < I_uRoom)
    {
        const ssize_t iRead = read(iFile, cpData + uRead, I_uRoom - uRead);
        if (iRead == -1 && errno == EINTR) continue;
        if (iRead == -1) throw SystemFailure("reading " + strName);
        if (iRead == 0) break;
        uRead += static_cast<size_t>(iRead);
    }
    uDone += uRead;
    if (uRead < I_uRoom && uDone < uSize)
        throw FAILURE("reading " + strName + ": it became shorter meanwhile");
    return uRead;
}

COutput::COutput(const std::string &I_strFile)
    : strName(I_strFile == "-" ? "standard output" : files_Quoted(I_strFile))
{
    if (I_strFile == "-") return;
    const std::string strPath = files_Resolve(I_strFile);
    bOld = stat(strPath.c_str(), &sOld) == 0;
    if (bOld && S_ISDIR(sOld.st_mode)) throw FAILURE(strName + ": is a folder");
    if (bOld && !S_ISREG(sOld.st_mode)) // a device or a pipe: there is nothing to replace
    {
        iFile = open(strPath.c_str(), O_WRONLY | O_CLOEXEC);
        if (iFile == -1) throw SystemFailure(strName);
        return;
    }
    strTarget = strPath;
    OpenTemporary();
}

void COutput::OpenTemporary()
{
    strTemporary = files_FolderOf(strTarget);
    if (strTemporary.back() != '/') strTemporary += '/';
    strTemporary += ".xbsactl.XXXXXX";
    const STOP_LOCK sLock; // no stop between the birth of the file and its entry
    iFile = mkostemp(strTemporary.data(), O_CLOEXEC);
    if (iFile == -1) throw SystemFailure("temporary file for " + strName);
    stop_RemoveFile(sLock, strTemporary);
}

COutput::~COutput()
{
    if (iFile > 2) close(iFile);
    if (strTemporary.empty()) return;
    const STOP_LOCK sLock;
    unlink(strTemporary.c_str());
    stop_RemoveFile(sLock, "");
}

void COutput::Write(const char *cpData, size_t I_uLength)
{
    size_t uWritten = 0;
    while (uWritten < I_uLength)
    {
        const ssize_t iWritten = write(iFile, cpData + uWritten, I_uLength - uWritten);
        if (iWritten == -1 && errno == EINTR) continue;
        if (iWritten == -1) throw SystemFailure("writing " + strName);
        uWritten += static_cast<size_t>(iWritten);
    }
}

// Pipes and terminals have nothing to be flushed.
void COutput::Sync() const
{
    if (fsync(iFile) != 0 && errno != EINVAL && errno != EROFS)
        throw SystemFailure("writing " + strName);
}

// The new file takes over who may use the old one, as far as this account can give it.
void COutput::TakeMode() const
{
    const bool bOwner = bOld && fchown(iFile, sOld.st_uid, sOld.st_gid) == 0;
    const mode_t uMode = !bOld ? files_NewFileMode() : sOld.st_mode & (bOwner ? 0777U : 0700U);
    if (fchmod(iFile, uMode) != 0) throw SystemFailure("writing " + strName);
}

// Some file systems report a full disk only here.
void COutput::Close()
{
    const int iClosed = iFile;
    iFile = -1;
    if (close(iClosed) != 0) throw SystemFailure("writing " + strName);
}

void COutput::Commit()
{
    if (!strTarget.empty()) TakeMode();
    Sync();
    Close();
    if (strTarget.empty()) return;

    {
        const STOP_LOCK sLock; // no stop between the rename and the end of the entry
        if (rename(strTemporary.c_str(), strTarget.c_str()) != 0) throw SystemFailure(strName);
        strTemporary.clear();
        stop_RemoveFile(sLock, "");
    }
    files_SyncFolder(files_FolderOf(strTarget));
}
