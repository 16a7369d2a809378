// "host[:port[:user:password]]": half a login is never taken for a login.
#include "fuzz.h"

void fuzz_One(std::string &X_strBytes)
{
    std::string strSpec = fuzz_Text(X_strBytes, '\0');
    std::string strRest = strSpec;
    std::vector<char> vecHost(4096), vecPort(8), vecUser(4096), vecPass(4096);
    const int iRet = ParseCLIHostSpec(strSpec.data(), vecHost.data(), vecPort.data(),
                                      vecUser.data(), vecPass.data());
    CHECK(iRet == 0 || iRet == 1);
    if (iRet == 1)
    {
        std::string strItems[4];
        for (std::string &strItem : strItems) strItem = fuzz_Text(strRest, ':');
        CHECK(strRest.empty() && !strItems[0].empty() && strItems[0] == vecHost.data());
        CHECK((strItems[1].empty() ? "11001" : strItems[1]) == vecPort.data());
        CHECK(strItems[2] == vecUser.data() || strcmp(XBSA_SECURE_USER, vecUser.data()) == 0);
        CHECK(strItems[3] == vecPass.data() && vecUser[0] != '\0');
    }
    for (const char *cpByte = strupr(strSpec.data()); *cpByte != '\0'; cpByte++)
        CHECK(*cpByte < 'a' || *cpByte > 'z');
}
