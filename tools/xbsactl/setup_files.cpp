#include "setup_files.h"

#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <fstream>
#include <sstream>

#include "errors.h"
#include "files.h"

namespace
{
std::string ReadFile(const std::string &I_strPath)
{
    std::ifstream sFile(I_strPath, std::ios::binary);
    std::ostringstream sText;
    if (sFile.is_open() && sFile.peek() != std::ifstream::traits_type::eof())
        sText << sFile.rdbuf();
    if (!sFile.is_open() || sFile.bad()) throw SystemFailure("reading " + I_strPath);
    return sText.str();
}

std::string ReadTarget(const std::string &I_strPath)
{
    std::array<char, PATH_MAX> szTarget{};
    const ssize_t iLength = readlink(I_strPath.c_str(), szTarget.data(), szTarget.size());
    if (iLength == -1) throw SystemFailure("reading " + I_strPath);
    return std::string(szTarget.data(), static_cast<size_t>(iLength));
}
} // namespace

std::string setupfiles_Path(const PLACE &I_sPlace, const std::string &I_strFile)
{
    return I_sPlace.strFolder + "/" + I_strFile;
}

bool setupfiles_Exists(const std::string &I_strPath)
{
    struct stat sStat
    {
    };
    return lstat(I_strPath.c_str(), &sStat) == 0;
}

std::optional<std::string> setupfiles_Content(const PLACE &I_sPlace, const std::string &I_strFile,
                                              bool I_bLink)
{
    const std::string strPath = setupfiles_Path(I_sPlace, I_strFile);
    struct stat sStat
    {
    };
    if (lstat(strPath.c_str(), &sStat) != 0)
    {
        if (errno == ENOENT) return std::nullopt;
        throw SystemFailure(strPath);
    }
    if (I_bLink && S_ISLNK(sStat.st_mode)) return ReadTarget(strPath);
    if (!S_ISREG(sStat.st_mode)) throw FAILURE(strPath + " is no plain file");
    return ReadFile(strPath);
}

std::string setupfiles_Hash(const std::string &I_strContent)
{
    std::array<unsigned char, EVP_MAX_MD_SIZE> ucHash{};
    unsigned uLength = 0;
    if (EVP_Digest(I_strContent.data(), I_strContent.size(), ucHash.data(), &uLength, EVP_sha256(),
                   nullptr) != 1)
        throw FAILURE("SHA-256 failed");
    static const char *const cpDigits = "0123456789abcdef";
    std::string strHash;
    for (unsigned uByte = 0; uByte < uLength; uByte++)
    {
        strHash += cpDigits[ucHash.at(uByte) >> 4];
        strHash += cpDigits[ucHash.at(uByte) & 15];
    }
    return strHash;
}

void setupfiles_WriteFile(const PLACE &I_sPlace, const std::string &I_strFile,
                          const std::string &I_strText)
{
    const std::string strPath = setupfiles_Path(I_sPlace, I_strFile);
    struct stat sOld
    {
    };
    struct stat sNew
    {
    };
    const bool bOld = lstat(strPath.c_str(), &sOld) == 0;
    COutput sOutput(strPath);
    sOutput.Write(I_strText.data(), I_strText.size());
    sOutput.Commit();
    if (!bOld && lchown(strPath.c_str(), I_sPlace.uOwner, I_sPlace.uGroup) != 0)
        throw SystemFailure("giving " + strPath + " to the database's account");
    if (lstat(strPath.c_str(), &sNew) != 0) throw SystemFailure(strPath);
    if (bOld &&
        (sNew.st_uid != sOld.st_uid || sNew.st_gid != sOld.st_gid || sNew.st_mode != sOld.st_mode))
        throw FAILURE(strPath + ": this account cannot keep its owner, group and mode");
}

void setupfiles_WriteLink(const PLACE &I_sPlace, const std::string &I_strFile,
                          const std::string &I_strTarget)
{
    const std::string strPath = setupfiles_Path(I_sPlace, I_strFile);
    const std::string strTemporary = strPath + ".xbsactl";
    unlink(strTemporary.c_str()); // of a run that was killed
    if (symlink(I_strTarget.c_str(), strTemporary.c_str()) != 0) throw SystemFailure(strPath);
    const bool bDone = lchown(strTemporary.c_str(), I_sPlace.uOwner, I_sPlace.uGroup) == 0 &&
                       rename(strTemporary.c_str(), strPath.c_str()) == 0;
    if (bDone) return;
    const int iError = errno;
    unlink(strTemporary.c_str());
    errno = iError;
    throw SystemFailure(strPath);
}

void setupfiles_Remove(const std::string &I_strPath)
{
    if (unlink(I_strPath.c_str()) != 0 && errno != ENOENT) throw SystemFailure(I_strPath);
}

// A rename does nothing when both names are the same file still, so the copy's name goes by itself.
void setupfiles_MoveBack(const PLACE &I_sPlace, const std::string &I_strCopy,
                         const std::string &I_strFile)
{
    const std::string strCopy = setupfiles_Path(I_sPlace, I_strCopy);
    const std::string strPath = setupfiles_Path(I_sPlace, I_strFile);
    if (rename(strCopy.c_str(), strPath.c_str()) != 0) throw SystemFailure(strPath);
    setupfiles_Remove(strCopy);
}
