#include "transfer/meter.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cinttypes>
#include <cstdio>

#include "transfer/status.h"
#include "transfer/transfer.h"

namespace transfer
{
namespace
{
constexpr std::chrono::milliseconds REDRAW{100};
constexpr uint64_t BAR_WIDTH = 30; // characters
} // namespace

bool WantsBar(const base::CONNECTION &I_sConnection)
{
    const bool bTraced = I_sConnection.iTraceLevel != -1 && I_sConnection.strTraceFile.empty();
    return isatty(STDERR_FILENO) == 1 && !bTraced;
}

CMeter::CMeter(uint64_t I_uExpected, bool I_bBar)
    : spHash(EVP_MD_CTX_new(), &EVP_MD_CTX_free), uExpected(I_uExpected), bBar(I_bBar)
{
    if (spHash == nullptr || EVP_DigestInit_ex(spHash.get(), EVP_sha256(), nullptr) != 1)
        throw base::FAILURE("SHA-256 is not available");
}

CMeter::~CMeter()
{
    if (bVisible) fputs("\r\x1b[K", stderr);
}

void CMeter::Add(const char *cpData, size_t I_uLength)
{
    if (EVP_DigestUpdate(spHash.get(), cpData, I_uLength) != 1)
        throw base::FAILURE("SHA-256 failed");
    uBytes += I_uLength;
    AddStatus(I_uLength);
    if (!bBar) return;
    const CLOCK::time_point sNow = CLOCK::now();
    if (sNow - sDrawn >= REDRAW) Draw(sNow);
}

double CMeter::Rate(CLOCK::time_point I_sNow) const
{
    const double dSeconds = std::chrono::duration<double>(I_sNow - sStart).count();
    return dSeconds > 0 ? static_cast<double>(uBytes) / 1e6 / dSeconds : 0;
}

void CMeter::Draw(CLOCK::time_point I_sNow)
{
    sDrawn = I_sNow;
    bVisible = true;
    fputs("\r", stderr);
    if (uExpected > 0)
    {
        const double dShare =
            std::min(1.0, static_cast<double>(uBytes) / static_cast<double>(uExpected));
        std::string strBar(static_cast<size_t>(dShare * BAR_WIDTH), '#');
        strBar.resize(BAR_WIDTH, '.');
        fprintf(stderr, "[%s] %3.0f%% ", strBar.c_str(), dShare * 100);
    }
    fprintf(stderr, "%.1f MB, %.1f MB/s\x1b[K", static_cast<double>(uBytes) / 1e6, Rate(I_sNow));
}

const std::string &CMeter::Digest()
{
    if (!strDigest.empty()) return strDigest;
    std::array<unsigned char, EVP_MAX_MD_SIZE> ucHash{};
    unsigned uLength = 0;
    if (EVP_DigestFinal_ex(spHash.get(), ucHash.data(), &uLength) != 1)
        throw base::FAILURE("SHA-256 failed");
    for (unsigned uByte = 0; uByte < uLength; uByte++)
    {
        std::array<char, 3> szByte{};
        snprintf(szByte.data(), szByte.size(), "%02x", ucHash.at(uByte));
        strDigest += szByte.data();
    }
    return strDigest;
}

std::string CMeter::Summary()
{
    const CLOCK::time_point sNow = CLOCK::now();
    std::array<char, 128> szText{};
    snprintf(szText.data(), szText.size(), "%" PRIu64 " bytes in %.3f s, %.1f MB/s, SHA-256 ",
             uBytes, std::chrono::duration<double>(sNow - sStart).count(), Rate(sNow));
    return szText.data() + Digest();
}
} // namespace transfer
