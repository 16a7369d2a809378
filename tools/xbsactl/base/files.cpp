#include "base/base.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <random>

namespace base
{
namespace
{
constexpr int READING = O_RDONLY | O_NONBLOCK | O_CLOEXEC; // opening a pipe must not wait

// What the umask leaves of rw-rw-rw-. Read once, by the main thread: reading it changes the mask of
// the whole process for a moment.
mode_t NewFileMode()
{
    static const mode_t uMask = [] {
        const mode_t uOld = umask(0);
        umask(uOld);
        return uOld;
    }();
    return 0666 & ~uMask;
}

std::string RandomLetters()
{
    std::random_device sRandom;
    std::string strLetters(6, 'a');
    for (char &cLetter : strLetters) cLetter = static_cast<char>('a' + sRandom() % 26);
    return strLetters;
}

// Pipes and terminals cannot be flushed.
bool Sync(int I_iFile)
{
    return fsync(I_iFile) == 0 || errno == EINVAL || errno == EROFS;
}

int Duplicate(int I_iFile)
{
    return fcntl(I_iFile, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
}

// A device or a database dump given by mistake would fill the memory. The limit also holds for a
// file that grows while it is read.
std::optional<std::string> ReadWhole(const CDescriptor &I_sFile, const std::string &I_strShown,
                                     off_t I_iLargest)
{
    if (I_sFile.Get() == -1 && errno == ENOENT) return std::nullopt;
    if (I_sFile.Get() == -1 && errno == ELOOP)
        throw FileFailure(I_strShown + " is a link, and not a regular file");
    if (I_sFile.Get() == -1) throw SystemFailure(I_strShown);
    const struct stat sStatus = I_sFile.Status(I_strShown);
    if (!S_ISREG(sStatus.st_mode)) throw FileFailure(I_strShown + " is not a regular file");

    std::string strText(static_cast<size_t>(std::min(sStatus.st_size, I_iLargest)) + 1, '\0');
    strText.resize(ReadAll(I_sFile.Get(), strText.data(), strText.size(), I_strShown));
    if (strText.size() > static_cast<size_t>(I_iLargest))
        throw FileFailure(I_strShown, " is larger than ", I_iLargest / 1024, " KiB");
    return strText;
}
} // namespace

std::string Quoted(const std::string &I_strFile)
{
    return "\"" + Printable(I_strFile) + "\"";
}

void ReserveStandard()
{
    for (const int iFile : {0, 1, 2})
    {
        if (fcntl(iFile, F_GETFD) == -1) // the lowest free number is the one that is missing
            static_cast<void>(open("/dev/null", iFile == 0 ? O_WRONLY : O_RDONLY));
    }
}

size_t ReadAll(int I_iFile, char *cpData, size_t I_uRoom, const std::string &I_strShown)
{
    size_t uRead = 0;
    while (uRead < I_uRoom)
    {
        const ssize_t iRead = TEMP_FAILURE_RETRY(read(I_iFile, cpData + uRead, I_uRoom - uRead));
        if (iRead == -1) throw SystemFailure("reading " + I_strShown);
        if (iRead == 0) break;
        uRead += static_cast<size_t>(iRead);
    }
    return uRead;
}

CInput::CInput(const std::string &I_strFile)
    : strName(I_strFile == "-" ? "standard input" : Quoted(I_strFile)),
      sFile(I_strFile == "-" ? Duplicate(STDIN_FILENO)
                             : open(I_strFile.c_str(), O_RDONLY | O_CLOEXEC))
{
    if (sFile.Get() == -1) throw SystemFailure(strName);
    const struct stat sStatus = sFile.Status(strName);
    if (S_ISDIR(sStatus.st_mode)) throw FileFailure(strName, ": is a directory");
    const off_t iPlace = S_ISREG(sStatus.st_mode) ? lseek(sFile.Get(), 0, SEEK_CUR) : 0;
    if (S_ISREG(sStatus.st_mode) && iPlace >= 0 && iPlace < sStatus.st_size)
        uSize = static_cast<uint64_t>(sStatus.st_size - iPlace);
}

size_t CInput::Read(char *cpData, size_t I_uRoom)
{
    const size_t uRead = ReadAll(sFile.Get(), cpData, I_uRoom, strName);
    uDone += uRead;
    if (uRead < I_uRoom && uDone < uSize)
        throw FileFailure("reading " + strName + ": file shrank while being read");
    return uRead;
}

COutput::COutput(const std::string &I_strFile)
{
    if (I_strFile == "-")
    {
        sTarget.strShown = "standard output";
        sFile = CDescriptor(Duplicate(STDOUT_FILENO));
        return;
    }
    sTarget = FindTarget(I_strFile);
    sOld = sTarget.Status();
    if (sOld && S_ISDIR(sOld->st_mode)) throw FileFailure(sTarget.strShown, ": is a directory");
    // A device or a pipe is not replaced.
    if (sOld && !S_ISREG(sOld->st_mode)) sFile = CDescriptor(sTarget.Open(O_WRONLY));
    else CreateTemporary();
    if (sFile.Get() == -1) throw SystemFailure(sTarget.strShown);
    if (strTemporary.empty() && S_ISREG(sFile.Status(sTarget.strShown).st_mode))
        throw FileFailure(sTarget.strShown, " was changed by another program");
}

COutput::COutput(TARGET I_sTarget, bool I_bExact)
    : sTarget(std::move(I_sTarget)), sOld(sTarget.Status()), bExact(I_bExact)
{
    if (sOld && !S_ISREG(sOld->st_mode))
        throw FileFailure(sTarget.strShown, " is not a regular file");
    CreateTemporary();
}

void COutput::CreateTemporary()
{
    const STOP_LOCK sLock = HoldStop(); // no stop between creating the file and its entry
    TARGET sNew = sTarget;
    do
    {
        sNew.strName = ".xbsactl." + RandomLetters();
        sFile = CDescriptor(sNew.Open(O_WRONLY | O_CREAT | O_EXCL, 0600));
    } while (sFile.Get() == -1 && errno == EEXIST);
    if (sFile.Get() == -1) throw SystemFailure("temporary file for ", sTarget.strShown);
    strTemporary = sNew.strName;
    DoomedFiles().emplace(sTarget.Folder(), strTemporary);
}

COutput::~COutput()
{
    if (strTemporary.empty()) return;
    const STOP_LOCK sLock = HoldStop();
    unlinkat(sTarget.Folder(), strTemporary.c_str(), 0);
    DoomedFiles().erase({sTarget.Folder(), strTemporary});
}

void COutput::Write(const char *cpData, size_t I_uLength)
{
    while (I_uLength > 0)
    {
        const ssize_t iWritten = TEMP_FAILURE_RETRY(write(sFile.Get(), cpData, I_uLength));
        if (iWritten == -1) throw SystemFailure("writing ", sTarget.strShown);
        cpData += iWritten;
        I_uLength -= static_cast<size_t>(iWritten);
    }
}

// The new file gets owner and mode of the old one, as far as this account can set them.
void COutput::TakeMode() const
{
    const bool bOwner = sOld && fchown(sFile.Get(), sOld->st_uid, sOld->st_gid) == 0;
    if (sOld && !bOwner && bExact)
        throw FileFailure(sTarget.strShown, ": this account cannot keep its owner and group");
    const mode_t uKept = bExact ? 07777 : bOwner ? 0777 : 0700;
    const mode_t uMode = sOld ? sOld->st_mode & uKept : NewFileMode();
    if (fchmod(sFile.Get(), uMode) != 0) throw SystemFailure("writing ", sTarget.strShown);
}

void COutput::Commit(bool I_bLast)
{
    if (!strTemporary.empty()) TakeMode();
    // Some file systems report a full disk only at the end.
    if ((I_bLast && !Sync(sFile.Get())) || close(sFile.Release()) != 0)
        throw SystemFailure("writing ", sTarget.strShown);
    if (strTemporary.empty()) return;
    {
        const STOP_LOCK sLock = HoldStop(); // no stop between the rename and removing the entry
        if (renameat(sTarget.Folder(), strTemporary.c_str(), sTarget.Folder(),
                     sTarget.strName.c_str()) != 0)
            throw SystemFailure("writing ", sTarget.strShown);
        DoomedFiles().erase({sTarget.Folder(), strTemporary});
        strTemporary.clear();
    }
    if (I_bLast) sTarget.SyncFolder();
}

std::optional<std::string> ReadText(const std::string &I_strFile, off_t I_iLargest)
{
    return ReadWhole(CDescriptor(open(I_strFile.c_str(), READING)), I_strFile, I_iLargest);
}

std::optional<std::string> ReadText(const TARGET &I_sTarget, off_t I_iLargest)
{
    return ReadWhole(CDescriptor(I_sTarget.Open(READING)), I_sTarget.strShown, I_iLargest);
}

void ReplaceText(const TARGET &I_sTarget, const std::string &I_strText, bool I_bExact, bool I_bLast)
{
    COutput sOutput(I_sTarget, I_bExact);
    sOutput.Write(I_strText.data(), I_strText.size());
    sOutput.Commit(I_bLast);
}
} // namespace base
