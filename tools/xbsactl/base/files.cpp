#include "base/files.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <random>

#include "base/errors.h"
#include "base/stop.h"

namespace base
{
std::string Quoted(const std::string &I_strFile)
{
    return "\"" + Printable(I_strFile) + "\"";
}

namespace
{
mode_t TakeUmask()
{
    const mode_t uMask = umask(0);
    umask(uMask);
    return uMask;
}

std::string RandomLetters()
{
    std::random_device sRandom;
    std::string strLetters;
    for (int iLetter = 0; iLetter < 6; iLetter++)
        strLetters += static_cast<char>('a' + sRandom() % 26);
    return strLetters;
}

void WriteAll(int I_iFile, const char *cpData, size_t I_uLength, const std::string &I_strShown)
{
    size_t uWritten = 0;
    while (uWritten < I_uLength)
    {
        const ssize_t iWritten = write(I_iFile, cpData + uWritten, I_uLength - uWritten);
        if (iWritten == -1 && errno == EINTR) continue;
        if (iWritten == -1) throw SystemFailure("writing " + I_strShown);
        uWritten += static_cast<size_t>(iWritten);
    }
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
} // namespace

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

CInput::CInput(const std::string &I_strFile)
    : strName(I_strFile == "-" ? "standard input" : Quoted(I_strFile))
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

CReplacement::CReplacement(const TARGET &I_sTarget, bool I_bExact)
    : sTarget(I_sTarget), sOld(I_sTarget.Status()), bExact(I_bExact)
{
    if (sOld && !S_ISREG(sOld->st_mode)) throw FAILURE(sTarget.strShown + " is not a regular file");
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
        throw FAILURE(sTarget.strShown + ": this account cannot keep its owner and group");
    const mode_t uKept = bExact ? 07777 : bOwner ? 0777 : 0700;
    const mode_t uMode = sOld ? sOld->st_mode & uKept : NewFileMode();
    if (fchmod(sFile.Get(), uMode) != 0) throw SystemFailure("writing " + sTarget.strShown);
}

void CReplacement::Finish()
{
    TakeMode();
    Sync(sFile.Get(), sTarget.strShown);
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
    if (sOld && S_ISDIR(sOld->st_mode)) throw FAILURE(sTarget->strShown + ": is a folder");
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
    struct stat sOpened
    {
    };
    if (sDevice.Get() == -1 || fstat(sDevice.Get(), &sOpened) != 0)
        throw SystemFailure(sTarget->strShown);
    if (S_ISREG(sOpened.st_mode)) throw FAILURE(sTarget->strShown + " was changed meanwhile");
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
    WriteAll(STDOUT_FILENO, cpData, I_uLength, "standard output");
}

void COutput::Commit()
{
    if (!sReplacement)
    {
        if (!sTarget) return Sync(STDOUT_FILENO, "standard output");
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
} // namespace base
