// The trace reader of xbsactl: what it prints of any log is clean text and a well-formed page.
#include "fuzz.h"

#include "errors.h"
#include "tracelog.h"

// Every tag is closed in its turn, and no text has a control character.
static void CheckPage(const std::string &I_strPage)
{
    std::vector<std::string> vecOpen;
    for (const char cByte : I_strPage)
        CHECK(static_cast<unsigned char>(cByte) >= ' ' || cByte == '\n');
    for (size_t uTag = I_strPage.find('<'); uTag != std::string::npos;
         uTag = I_strPage.find('<', uTag + 1))
    {
        const size_t uEnd = I_strPage.find_first_of("<>", uTag + 1);
        CHECK(uEnd != std::string::npos && I_strPage[uEnd] == '>');
        const std::string strTag = I_strPage.substr(uTag + 1, uEnd - uTag - 1);
        const std::string strName = strTag.substr(0, strTag.find_first_of(" /", 1));
        CHECK(strName != "script" && !strName.empty());
        if (strName[0] == '!' || strTag.back() == '/') continue;
        if (strName[0] != '/') vecOpen.push_back(strName);
        else
        {
            CHECK(!vecOpen.empty() && "/" + vecOpen.back() == strTag);
            vecOpen.pop_back();
        }
    }
    CHECK(vecOpen.empty());
}

void fuzz_One(CBytes &X_sBytes)
{
    SETTINGS sSettings;
    sSettings.lHandle = static_cast<long>(X_sBytes.Byte() & 1) * 4711;
    sSettings.strFile = "log";
    sSettings.strHtml = "/dev/null";
    sSettings.strSince = X_sBytes.Text('\n');
    sWorld.mapFiles["log"] = X_sBytes.Text('\0');
    sWorld.mapFiles["act"] = X_sBytes.Rest();
    if (!sWorld.mapFiles["act"].empty()) sSettings.strActLog = "act";
    try
    {
        tracelog_Run(sSettings);
        CHECK(!sWorld.strWritten.empty());
        CheckPage(sWorld.strWritten);
    } catch (const USAGE_ERROR &)
    {
        CHECK(!sSettings.strSince.empty());
    } catch (const FAILURE &)
    {
        CHECK(!sSettings.strSince.empty());
    }
}
