// "150 ... TAPE 17 SEGMENT 3": the numbers are those that follow the words.
#include "fuzz.h"

#include <algorithm>
#include <cstdlib>

void fuzz_One(std::string &X_strBytes)
{
    const unsigned uLevel = fuzz_Byte(X_strBytes);
    std::string strReply = fuzz_Text(X_strBytes, '\0');
    fuzz_Init(uLevel & 3, false);
    std::string strRest = strReply.substr(0, 4095);
    std::replace(strRest.begin(), strRest.end(), ':', ' ');
    unsigned long ulTape = 0;
    unsigned long ulSegment = 0;
    unsigned long *ulpNext = nullptr; // what the word before this one names
    while (!strRest.empty())
    {
        const std::string strWord = fuzz_Text(strRest, ' ');
        if (strWord.empty()) continue;
        if (ulpNext != nullptr) *ulpNext = strtoul(strWord.c_str(), nullptr, 10);
        const bool bTape = strWord.compare(0, 4, "TAPE") == 0;
        const bool bName = bTape || strWord.compare(0, 7, "SEGMENT") == 0;
        ulpNext = ulpNext != nullptr || !bName ? nullptr : bTape ? &ulTape : &ulSegment;
    }
    sms_parseinfo(strReply.data());
    CHECK(sGlobal.sObject.sSMS.ulTapeID == ulTape);
    CHECK(sGlobal.sObject.sSMS.ulSegmentNum == ulSegment);
}
