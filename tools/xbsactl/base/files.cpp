#include "base/base.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <random>

namespace base
{
namespace
{
constexpr int READING = O_RDONLY | O_NONBLOCK | O_CLOEXEC; // a pipe would be waited for
constexpr const char *STANDARD_OUTPUT = "standard output";

mode_t TakeUmask()
{
    const mode_t uMask = umask(0);
    umask(uMask);
    return uMask;
}

std::string RandomLetters()
{
    std::random_device sRandom;
    std::string strLetters(6, 'a');
    for (char &cLetter : strLetters) cLetter = static_cast<char>('a' + sRandom() % 26);
    return strLetters;
}

// Pipes and terminals have nothing to be flushed.
void Sync(int I_iFile, const std::string &I_strShown)
{
    if (fsync(I_iFile) != 0 && errno != EINVAL && errno != EROFS)
        throw SystemFailure("writing " + I_strShown);
}

// Some file systems report a full disk only here.
void Close(CDescriptor &X_sFile, const std::string &I_strShown)
{
    if (close(X_sFile.Release()) != 0) throw SystemFailure("writing " + I_strShown);
}

// A device or a database dump given by mistake would fill the memory; neither may the file grow
// beyond the limit meanwhile.
std::optional<std::string> ReadWhole(const CDescriptor &I_sFile, const std::string &I_strShown,
                                     off_t I_iLargest)
{
    if (I_sFile.Get() == -1 && errno == ENOENT) return std::nullopt;
    if (I_sFile.Get() == -1 && errno == ELOOP)
        throw FileFailure(I_strShown + " is a link, and not a regular file");
    if (I_sFile.Get() == -1) throw SystemFailure(I_strShown);
    const struct stat sStatus = StatusOf(I_sFile.Get(), I_strShown);
    if (!S_ISREG(sStatus.st_mode)) throw FileFailure(I_strShown + " is not a regular file");

    std::string strText(static_cast<size_t>(std::min(sStatus.st_size, I_iLargest)) + 1, '\0');
    strText.resize(ReadAll(I_sFile.Get(), strText.data(), strText.size(), I_strShown));
    if (strText.size() > static_cast<size_t>(I_iLargest))
        throw FileFailure(I_strShown + " is larger than " + std::to_string(I_iLargest / 1024) +
                          " KiB");
    return strText;
}
} // namespace

std::string Quoted(const std::string &I_strFile)
{
    return "\"" + Printable(I_strFile) + "\"";
}

// Asked for once: meanwhile the mask is another one for the whole process.
mode_t NewFileMode()
{
    static const mode_t uMask = TakeUmask();
    return 0666 & ~uMask;
}

void ReserveStandard()
{
    for (const int iFile : {0, 1, 2})
    {
        if (fcntl(iFile, F_GETFD) == -1) // the lowest free number is the one that is missing
            static_cast<void>(open("/dev/null", iFile == 0 ? O_WRONLY : O_RDONLY));
    }
}

void WriteAll(int I_iFile, const char *cpData, size_t I_uLength, const std::string &I_strShown)
{
    while (I_uLength > 0)
    {
        const ssize_t iWritten = TEMP_FAILURE_RETRY(write(I_iFile, cpData, I_uLength));
        if (iWritten == -1) throw SystemFailure("writing " + I_strShown);
        cpData += iWritten;
        I_uLength -= static_cast<size_t>(iWritten);
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
      sFile(I_strFile == "-" ? -1 : open(I_strFile.c_str(), O_RDONLY | O_CLOEXEC))
{
    if (I_strFile != "-" && sFile.Get() == -1) throw SystemFailure(strName);
    const int iFile = sFile.Get() == -1 ? STDIN_FILENO : sFile.Get();
    const struct stat sStatus = StatusOf(iFile, strName);
    if (S_ISDIR(sStatus.st_mode)) throw FileFailure(strName + ": is a folder");
    const off_t iPlace = S_ISREG(sStatus.st_mode) ? lseek(iFile, 0, SEEK_CUR) : 0;
    if (S_ISREG(sStatus.st_mode) && iPlace >= 0 && iPlace < sStatus.st_size)
        uSize = static_cast<uint64_t>(sStatus.st_size - iPlace);
}

size_t CInput::Read(char *cpData, size_t I_uRoom)
{
    const size_t uRead =
        ReadAll(sFile.Get() == -1 ? STDIN_FILENO : sFile.Get(), cpData, I_uRoom, strName);
    uDone += uRead;
    if (uRead < I_uRoom && uDone < uSize)
        throw FileFailure("reading " + strName + ": file shrank while being read");
    return uRead;
}

CReplacement::CReplacement(TARGET I_sTarget, bool I_bExact)
    : sTarget(std::move(I_sTarget)), sOld(sTarget.Status()), bExact(I_bExact)
{
    if (sOld && !S_ISREG(sOld->st_mode))
        throw FileFailure(sTarget.strShown + " is not a regular file");
    TARGET sNew = sTarget;
    do
    {
        sNew.strName = ".xbsactl." + RandomLetters();
        sFile = CDescriptor(sNew.Open(O_WRONLY | O_CREAT | O_EXCL, 0600));
    } while (sFile.Get() == -1 && errno == EEXIST);
    if (sFile.Get() == -1) throw SystemFailure("temporary file for " + sTarget.strShown);
    strTemporary = sNew.strName;
}

CReplacement::~CReplacement()
{
    if (!strTemporary.empty()) unlinkat(sTarget.Folder(), strTemporary.c_str(), 0);
}

void CReplacement::Write(const char *cpData, size_t I_uLength)
{
    WriteAll(sFile.Get(), cpData, I_uLength, sTarget.strShown);
}

// The new file takes over who may use the old one, as far as this account can give it.
void CReplacement::TakeMode() const
{
    const bool bOwner = sOld && fchown(sFile.Get(), sOld->st_uid, sOld->st_gid) == 0;
    if (sOld && !bOwner && bExact)
        throw FileFailure(sTarget.strShown + ": this account cannot keep its owner and group");
    const mode_t uKept = bExact ? 07777 : bOwner ? 0777 : 0700;
    const mode_t uMode = sOld ? sOld->st_mode & uKept : NewFileMode();
    if (fchmod(sFile.Get(), uMode) != 0) throw SystemFailure("writing " + sTarget.strShown);
}

void CReplacement::Finish(bool I_bSync)
{
    TakeMode();
    if (I_bSync) Sync(sFile.Get(), sTarget.strShown);
    Close(sFile, sTarget.strShown);
}

void CReplacement::Publish()
{
    if (renameat(sTarget.Folder(), strTemporary.c_str(), sTarget.Folder(),
                 sTarget.strName.c_str()) != 0)
        throw SystemFailure("writing " + sTarget.strShown);
    strTemporary.clear();
}

COutput::COutput(const std::string &I_strFile)
{
    if (I_strFile == "-") return;
    sTarget = FindTarget(I_strFile);
    const std::optional<struct stat> sOld = sTarget->Status();
    if (sOld && S_ISDIR(sOld->st_mode)) throw FileFailure(sTarget->strShown + ": is a folder");
    if (sOld && !S_ISREG(sOld->st_mode))
    {
        OpenDevice();
        return;
    }
    const STOP_LOCK sLock; // no stop between the birth of the file and its entry
    sReplacement.emplace(*sTarget, false);
    RemoveAtStop(sLock, sTarget->Folder(), sReplacement->Temporary());
}

// A device or a pipe: there is nothing to replace.
void COutput::OpenDevice()
{
    sDevice = CDescriptor(sTarget->Open(O_WRONLY));
    if (sDevice.Get() == -1) throw SystemFailure(sTarget->strShown);
    if (S_ISREG(StatusOf(sDevice.Get(), sTarget->strShown).st_mode))
        throw FileFailure(sTarget->strShown + " was changed meanwhile");
}

COutput::~COutput()
{
    if (!sReplacement) return;
    const STOP_LOCK sLock;
    sReplacement.reset();
    RemoveAtStop(sLock, -1, "");
}

void COutput::Write(const char *cpData, size_t I_uLength)
{
    if (sReplacement) return sReplacement->Write(cpData, I_uLength);
    if (sTarget) return WriteAll(sDevice.Get(), cpData, I_uLength, sTarget->strShown);
    WriteAll(STDOUT_FILENO, cpData, I_uLength, STANDARD_OUTPUT);
}

void COutput::Commit()
{
    if (!sReplacement)
    {
        if (!sTarget) return Sync(STDOUT_FILENO, STANDARD_OUTPUT);
        Sync(sDevice.Get(), sTarget->strShown);
        return Close(sDevice, sTarget->strShown);
    }
    sReplacement->Finish();
    {
        const STOP_LOCK sLock; // no stop between the rename and the end of the entry
        sReplacement->Publish();
        RemoveAtStop(sLock, -1, "");
    }
    sTarget->SyncFolder();
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
    CReplacement sReplacement(I_sTarget, I_bExact);
    sReplacement.Write(I_strText.data(), I_strText.size());
    sReplacement.Finish(I_bLast);
    sReplacement.Publish();
    if (I_bLast) I_sTarget.SyncFolder();
}
} // namespace base
