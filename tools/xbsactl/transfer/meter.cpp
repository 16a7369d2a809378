#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "transfer/parts.h"

namespace transfer
{
namespace
{
constexpr double REDRAW = 0.1;     // seconds
constexpr uint64_t BAR_WIDTH = 30; // characters
} // namespace

CMeter::CMeter(const base::CONNECTION &I_sConnection, uint64_t I_uExpected)
    : spHash(EVP_MD_CTX_new(), &EVP_MD_CTX_free), uExpected(I_uExpected)
{
    const bool bTraced = I_sConnection.iTraceLevel != -1 && I_sConnection.strTraceFile.empty();
    bBar = isatty(STDERR_FILENO) == 1 && !bTraced;
    if (spHash == nullptr || EVP_DigestInit_ex(spHash.get(), EVP_sha256(), nullptr) != 1)
        throw base::FAILURE("SHA-256 is not available");
}

CMeter::~CMeter()
{
    Clear();
}

void CMeter::Clear()
{
    if (bVisible) fputs("\r\x1b[K", stderr);
    bVisible = false;
}

void CMeter::Add(const char *cpData, size_t I_uLength)
{
    if (EVP_DigestUpdate(spHash.get(), cpData, I_uLength) != 1)
        throw base::FAILURE("SHA-256 failed");
    sCount.uBytes += I_uLength;
    AddStatus(I_uLength);
    if (bBar && Now() - dDrawn >= REDRAW) Draw();
}

double CMeter::Now() const
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - sStart).count();
}

void CMeter::Draw()
{
    dDrawn = Now();
    bVisible = true;
    std::string strBar;
    if (uExpected > 0)
    {
        const uint64_t uDone = std::min(sCount.uBytes, uExpected);
        strBar.assign(static_cast<size_t>(uDone * BAR_WIDTH / uExpected), '#');
        strBar.resize(BAR_WIDTH, '.');
        strBar = base::Text('[', strBar, "] ", uDone * 100 / uExpected, "% ");
    }
    fprintf(stderr, "\r%s%.1f MB, %.1f MB/s\x1b[K", strBar.c_str(),
            static_cast<double>(sCount.uBytes) / 1e6, Rate(sCount.uBytes, dDrawn));
}

COUNT CMeter::End()
{
    unsigned char ucHash[EVP_MAX_MD_SIZE];
    unsigned uLength = 0;
    Clear();
    sCount.dSeconds = Now();
    if (EVP_DigestFinal_ex(spHash.get(), ucHash, &uLength) != 1)
        throw base::FAILURE("SHA-256 failed");
    sCount.strDigest = base::Hex(ucHash, uLength);
    return sCount;
}
} // namespace transfer
