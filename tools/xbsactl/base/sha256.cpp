#include <openssl/evp.h>

#include "base/base.h"

namespace base
{
CSha256::CSha256() : spContext(EVP_MD_CTX_new(), &EVP_MD_CTX_free)
{
    if (spContext == nullptr || EVP_DigestInit_ex(spContext.get(), EVP_sha256(), nullptr) != 1)
        throw FAILURE("SHA-256 is not available");
}

void CSha256::Add(std::string_view I_svBytes)
{
    if (EVP_DigestUpdate(spContext.get(), I_svBytes.data(), I_svBytes.size()) != 1)
        throw FAILURE("SHA-256 failed");
}

std::string CSha256::Digits()
{
    std::array<unsigned char, EVP_MAX_MD_SIZE> ucHash{};
    unsigned uLength = 0;
    std::string strDigits;
    if (EVP_DigestFinal_ex(spContext.get(), ucHash.data(), &uLength) != 1)
        throw FAILURE("SHA-256 failed");
    for (unsigned uAt = 0; uAt < uLength; uAt++)
        strDigits.append(
            {"0123456789abcdef"[ucHash[uAt] >> 4], "0123456789abcdef"[ucHash[uAt] & 15]});
    return strDigits;
}
} // namespace base
