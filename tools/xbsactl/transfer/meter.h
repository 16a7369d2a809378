// Counts, hashes and times the bytes of one object, here and for status.h, and draws the progress
// bar.
#ifndef XBSACTL_METER_H
#define XBSACTL_METER_H

#include <openssl/evp.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "transfer/transfer.h"

namespace transfer
{
class CMeter
{
  public:
    // I_uExpected: bytes of the whole object, 0 when unknown. The clock starts here.
    CMeter(uint64_t I_uExpected, bool I_bBar);
    CMeter(const CMeter &) = delete;
    CMeter &operator=(const CMeter &) = delete;
    ~CMeter(); // clears the bar

    void Add(const char *cpData, size_t I_uLength);

    uint64_t Bytes() const
    {
        return uBytes;
    }

    // "5 bytes in 0.01 s, 0.0 MB/s, SHA-256 ...". It and the digest end the count.
    std::string Summary();

    // SHA-256 in hexadecimal digits.
    const std::string &Digest();

  private:
    using CLOCK = std::chrono::steady_clock;

    double Rate(CLOCK::time_point I_sNow) const; // megabytes (10^6) a second
    void Draw(CLOCK::time_point I_sNow);

    std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> spHash;
    CLOCK::time_point sStart = CLOCK::now();
    CLOCK::time_point sDrawn = sStart;
    uint64_t uExpected;
    uint64_t uBytes = 0;
    std::string strDigest; // empty until it is asked for
    bool bBar;
    bool bVisible = false;
};

// Whether the bar can be seen: it and trace lines on one terminal would spoil each other.
bool WantsBar(const base::CONNECTION &I_sConnection);
} // namespace transfer

#endif
