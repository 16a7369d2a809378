#include "base/textfile.h"

#include <fcntl.h>

#include <array>
#include <cerrno>

#include "base/errors.h"
#include "base/files.h"

namespace base
{
namespace
{
constexpr int READING = O_RDONLY | O_NONBLOCK | O_CLOEXEC; // a pipe would be waited for

FAILURE TooLarge(const std::string &I_strShown, off_t I_iLargest)
{
    return FAILURE(I_strShown + " is larger than " + std::to_string(I_iLargest / 1024) + " KiB");
}

// A device or a database dump given by mistake would fill the memory.
void RefuseOther(int I_iFile, const std::string &I_strShown, off_t I_iLargest)
{
    struct stat sFile
    {
    };
    if (fstat(I_iFile, &sFile) != 0 || !S_ISREG(sFile.st_mode))
        throw FAILURE(I_strShown + " is not a regular file");
    if (sFile.st_size > I_iLargest) throw TooLarge(I_strShown, I_iLargest);
}

// No more than the limit either when the file grows meanwhile.
std::optional<std::string> ReadAll(const CDescriptor &I_sFile, const std::string &I_strShown,
                                   off_t I_iLargest)
{
    if (I_sFile.Get() == -1 && errno == ENOENT) return std::nullopt;
    if (I_sFile.Get() == -1 && errno == ELOOP)
        throw FAILURE(I_strShown + " is a link, and not a regular file");
    if (I_sFile.Get() == -1) throw SystemFailure(I_strShown);
    RefuseOther(I_sFile.Get(), I_strShown, I_iLargest);

    std::string strText;
    std::array<char, 65536> szBlock{};
    ssize_t iRead = 1;
    while (iRead > 0 || (iRead == -1 && errno == EINTR))
    {
        iRead = read(I_sFile.Get(), szBlock.data(), szBlock.size());
        if (iRead > 0) strText.append(szBlock.data(), static_cast<size_t>(iRead));
        if (strText.size() > static_cast<size_t>(I_iLargest))
            throw TooLarge(I_strShown, I_iLargest);
    }
    if (iRead == -1) throw SystemFailure("reading " + I_strShown);
    return strText;
}
} // namespace

std::optional<std::string> ReadText(const std::string &I_strFile, off_t I_iLargest)
{
    return ReadAll(CDescriptor(open(I_strFile.c_str(), READING)), I_strFile, I_iLargest);
}

std::optional<std::string> ReadText(const TARGET &I_sTarget, off_t I_iLargest)
{
    return ReadAll(CDescriptor(I_sTarget.Open(READING)), I_sTarget.strShown, I_iLargest);
}

void ReplaceText(const TARGET &I_sTarget, const std::string &I_strText, bool I_bExact)
{
    CReplacement sReplacement(I_sTarget, I_bExact);
    sReplacement.Write(I_strText.data(), I_strText.size());
    sReplacement.Finish();
    sReplacement.Publish();
    I_sTarget.SyncFolder();
}
} // namespace base
