// "host[:port[:user:password]]": half a login is never taken for a login.
#include "fuzz.h"

#include <memory>

void fuzz_One(CBytes &X_sBytes)
{
    std::string strSpec = X_sBytes.Text('\0');
    const auto spHost = std::make_unique<char[]>(4096);
    const auto spPort = std::make_unique<char[]>(8);
    const auto spUser = std::make_unique<char[]>(4096);
    const auto spPass = std::make_unique<char[]>(4096);
    const int iRet =
        ParseCLIHostSpec(strSpec.data(), spHost.get(), spPort.get(), spUser.get(), spPass.get());
    CHECK(fuzz_IsOneOf(iRet, {0, 1}));
    if (iRet == 1)
    {
        std::string strItems[4];
        CBytes sItems(reinterpret_cast<const uint8_t *>(strSpec.data()), strSpec.size());
        for (std::string &strItem : strItems) strItem = sItems.Text(':');
        CHECK(sItems.IsEmpty());
        CHECK(!strItems[0].empty() && strItems[0] == spHost.get());
        CHECK(strItems[1].empty() ? std::string("11001") == spPort.get()
                                  : strItems[1] == spPort.get());
        CHECK(strItems[2] == spUser.get() || std::string(XBSA_SECURE_USER) == spUser.get());
        CHECK(strItems[3] == spPass.get() && spUser[0] != '\0');
    }
    for (const char *cpByte = strupr(strSpec.data()); *cpByte != '\0'; cpByte++)
        CHECK(*cpByte < 'a' || *cpByte > 'z');
}
