#include "setup/files.h"

#include <openssl/evp.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>

#include "base/base.h"

namespace setup
{
namespace
{
// All files are in etc, but for the link in lib.
base::TARGET Target(const PLACE &I_sPlace, const std::string &I_strFile)
{
    const bool bLib = I_strFile.compare(0, 4, "lib/") == 0;
    return {bLib ? I_sPlace.spLib : I_sPlace.spEtc, I_strFile.substr(4),
            PathOf(I_sPlace, I_strFile)};
}

std::string ReadLink(const base::TARGET &I_sTarget)
{
    std::array<char, PATH_MAX> szText{};
    const ssize_t iLength =
        readlinkat(I_sTarget.Folder(), I_sTarget.strName.c_str(), szText.data(), szText.size());
    if (iLength == -1) throw base::SystemFailure("reading " + I_sTarget.strShown);
    return std::string(szText.data(), static_cast<size_t>(iLength));
}

void Rename(const base::TARGET &I_sFrom, const base::TARGET &I_sTo)
{
    if (renameat(I_sFrom.Folder(), I_sFrom.strName.c_str(), I_sTo.Folder(),
                 I_sTo.strName.c_str()) != 0)
        throw base::SystemFailure(I_sTo.strShown);
}
} // namespace

bool Exists(const PLACE &I_sPlace, const std::string &I_strFile)
{
    return Target(I_sPlace, I_strFile).Status().has_value();
}

std::optional<std::string> Content(const PLACE &I_sPlace, const std::string &I_strFile,
                                   bool I_bLink, off_t I_iLargest)
{
    const base::TARGET sTarget = Target(I_sPlace, I_strFile);
    if (sTarget.spFolder == nullptr) return std::nullopt;
    const std::optional<struct stat> sStatus = sTarget.Status();
    if (!sStatus) return std::nullopt;
    if (I_bLink && S_ISLNK(sStatus->st_mode)) return ReadLink(sTarget);
    return base::ReadText(sTarget, I_iLargest);
}

void RefuseForeign(const PLACE &I_sPlace, const std::string &I_strFile)
{
    const base::TARGET sTarget = Target(I_sPlace, I_strFile);
    const std::optional<struct stat> sStatus = sTarget.Status();
    if (geteuid() != 0 && sStatus && sStatus->st_uid != geteuid())
        throw base::FAILURE(
            sTarget.strShown + " belongs to account " + std::to_string(sStatus->st_uid) +
            ", and setup runs as " + std::to_string(geteuid()) + ": " +
            (I_strFile == I_sPlace.strOnconfig ? "run setup as its owner, or as root"
                                               : "give it the onconfig's owner first") +
            "; nothing was changed");
}

std::string Hash(const std::string &I_strContent)
{
    std::array<unsigned char, EVP_MAX_MD_SIZE> ucHash{};
    unsigned uLength = 0;
    if (EVP_Digest(I_strContent.data(), I_strContent.size(), ucHash.data(), &uLength, EVP_sha256(),
                   nullptr) != 1)
        throw base::FAILURE("SHA-256 failed");
    static const char *const cpDigits = "0123456789abcdef";
    std::string strHash;
    for (unsigned uByte = 0; uByte < uLength; uByte++)
    {
        strHash += cpDigits[ucHash.at(uByte) >> 4];
        strHash += cpDigits[ucHash.at(uByte) & 15];
    }
    return strHash;
}

void WriteFile(const PLACE &I_sPlace, const std::string &I_strFile, const std::string &I_strText)
{
    base::ReplaceText(Target(I_sPlace, I_strFile), I_strText, true);
}

void WriteLink(const PLACE &I_sPlace, const std::string &I_strFile, const std::string &I_strTarget)
{
    const base::TARGET sTarget = Target(I_sPlace, I_strFile);
    base::TARGET sNew = sTarget;
    sNew.strName += ".xbsactl";
    unlinkat(sNew.Folder(), sNew.strName.c_str(), 0); // of a run that was killed
    if (symlinkat(I_strTarget.c_str(), sNew.Folder(), sNew.strName.c_str()) != 0)
        throw base::SystemFailure(sTarget.strShown);
    Rename(sNew, sTarget);
}

void Remove(const PLACE &I_sPlace, const std::string &I_strFile)
{
    const base::TARGET sTarget = Target(I_sPlace, I_strFile);
    if (unlinkat(sTarget.Folder(), sTarget.strName.c_str(), 0) != 0 && errno != ENOENT)
        throw base::SystemFailure(sTarget.strShown);
}

void Copy(const PLACE &I_sPlace, const std::string &I_strFile, const std::string &I_strCopy)
{
    const base::TARGET sFrom = Target(I_sPlace, I_strFile);
    const base::TARGET sCopy = Target(I_sPlace, I_strCopy);
    if (linkat(sFrom.Folder(), sFrom.strName.c_str(), sCopy.Folder(), sCopy.strName.c_str(), 0) !=
        0)
        throw base::SystemFailure("keeping a copy of " + sFrom.strShown);
}

// A rename does nothing when both names are the same file still, so the copy's name goes by itself.
void MoveBack(const PLACE &I_sPlace, const std::string &I_strCopy, const std::string &I_strFile)
{
    Rename(Target(I_sPlace, I_strCopy), Target(I_sPlace, I_strFile));
    Remove(I_sPlace, I_strCopy);
}
} // namespace setup
