#include <fcntl.h>
#include <zlib.h>

#include <algorithm>

#include "base/base.h"

namespace base
{
namespace
{
constexpr unsigned BUFFER_SIZE = 1U << 18U; // bytes
} // namespace

CLines::CLines(const std::string &I_strFile, size_t I_uLongest)
    : strShown(I_strFile == "-" ? "standard input" : Quoted(I_strFile)), uLongest(I_uLongest),
      spFile(nullptr, gzclose_r)
{
    CDescriptor sFile(I_strFile == "-" ? fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1)
                                       : open(I_strFile.c_str(), O_RDONLY | O_CLOEXEC));
    if (sFile.Get() == -1) throw SystemFailure(strShown);
    sStatus = sFile.Status(strShown);
    if (S_ISDIR(sStatus.st_mode)) throw FileFailure(strShown, ": is a directory");
    spFile.reset(gzdopen(sFile.Get(), "rb"));
    if (spFile == nullptr) throw FileFailure("reading ", strShown, ": out of memory");
    sFile.Release();
}

// Returns false at the end.
bool CLines::Fill()
{
    if (bOver) return false;
    strBuffer.resize(BUFFER_SIZE);
    const int iRead = gzread(spFile.get(), strBuffer.data(), BUFFER_SIZE);
    int iError = Z_OK;
    const char *cpError = gzerror(spFile.get(), &iError);
    if (iError == Z_ERRNO) throw SystemFailure("reading ", strShown);
    if (iRead < 0) throw FileFailure("reading ", strShown, ": ", cpError);
    bTorn = iError == Z_BUF_ERROR;
    strBuffer.resize(static_cast<size_t>(iRead));
    svRest = strBuffer;
    bOver = svRest.empty();
    return !bOver;
}

bool CLines::Next()
{
    strLine.clear();
    bWhole = false;
    while (!bWhole)
    {
        if (svRest.empty() && !Fill()) return !strLine.empty();
        const size_t uLength = std::min(svRest.find('\n'), svRest.size());
        bWhole = uLength < svRest.size();
        strLine += svRest.substr(0, std::min(uLength, uLongest - strLine.size()));
        svRest.remove_prefix(uLength + (bWhole ? 1 : 0));
    }
    return true;
}
} // namespace base
