#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <iomanip>
#include <sstream>

#include "transfer/parts.h"

namespace transfer
{
namespace
{
constexpr std::chrono::milliseconds REDRAW{100};
constexpr uint64_t BAR_WIDTH = 30; // characters
} // namespace

std::string Decimal(double I_dValue, int I_iPlaces)
{
    std::ostringstream sText;
    sText << std::fixed << std::setprecision(I_iPlaces) << I_dValue;
    return sText.str();
}

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
    uBytes += I_uLength;
    AddStatus(I_uLength);
    if (!bBar) return;
    sEnd = CLOCK::now();
    if (sEnd - sDrawn >= REDRAW) Draw();
}

void CMeter::Draw()
{
    sDrawn = sEnd;
    bVisible = true;
    std::string strBar;
    if (uExpected > 0)
    {
        const uint64_t uDone = std::min(uBytes, uExpected);
        strBar.assign(static_cast<size_t>(uDone * BAR_WIDTH / uExpected), '#');
        strBar.resize(BAR_WIDTH, '.');
        strBar = "[" + strBar + "] " + std::to_string(uDone * 100 / uExpected) + "% ";
    }
    fprintf(stderr, "\r%s%.1f MB, %.1f MB/s\x1b[K", strBar.c_str(),
            static_cast<double>(uBytes) / 1e6, Rate(uBytes, Seconds()));
}

void CMeter::End()
{
    unsigned char ucHash[EVP_MAX_MD_SIZE];
    unsigned uLength = 0;
    Clear();
    sEnd = CLOCK::now();
    if (EVP_DigestFinal_ex(spHash.get(), ucHash, &uLength) != 1)
        throw base::FAILURE("SHA-256 failed");
    strDigest = base::Hex(ucHash, uLength);
}
} // namespace transfer
