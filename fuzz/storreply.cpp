// "150 ... TAPE 17 SEGMENT 3": the numbers are those that follow the words.
#include "fuzz.h"

#include <cstdlib>

static std::vector<std::string> Tokens(const std::string &I_strText)
{
    std::vector<std::string> vecTokens;
    bool bToken = false;
    for (const char cByte : I_strText)
    {
        const bool bBlank = cByte == ' ' || cByte == ':';
        if (!bBlank && !bToken) vecTokens.emplace_back();
        if (!bBlank) vecTokens.back() += cByte;
        bToken = !bBlank;
    }
    return vecTokens;
}

void fuzz_One(CBytes &X_sBytes)
{
    const unsigned uLevel = X_sBytes.Byte();
    std::string strReply = X_sBytes.Text('\0');
    fuzz_Init(uLevel & 3, false);
    unsigned long ulTape = 0;
    unsigned long ulSegment = 0;
    const std::vector<std::string> vecTokens = Tokens(strReply.substr(0, 4095));
    for (size_t uToken = 0; uToken + 1 < vecTokens.size(); uToken++)
    {
        const bool bTape = vecTokens[uToken].compare(0, 4, "TAPE") == 0;
        if (!bTape && vecTokens[uToken].compare(0, 7, "SEGMENT") != 0) continue;
        (bTape ? ulTape : ulSegment) = strtoul(vecTokens[++uToken].c_str(), nullptr, 10);
    }
    sms_parseinfo(strReply.data());
    CHECK(sGlobal.sObject.sSMS.ulTapeID == ulTape);
    CHECK(sGlobal.sObject.sSMS.ulSegmentNum == ulSegment);
}
