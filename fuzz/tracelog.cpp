// The trace reader of xbsactl prints clean text and a well-formed page for any log.
#include "fuzz.h"

#include "base/base.h"
#include "trace/trace.h"

// Checks that tags are closed in order and that no text contains a control character.
static void CheckPage(const std::string &I_strPage)
{
    std::vector<std::string> vecOpen;
    for (const char cByte : I_strPage)
        CHECK(static_cast<unsigned char>(cByte) >= ' ' || cByte == '\n');
    std::string strRest = I_strPage;
    for (fuzz_Text(strRest, '<'); !strRest.empty(); fuzz_Text(strRest, '<'))
    {
        const std::string strTag = fuzz_Text(strRest, '>');
        CHECK(strTag.find('<') == std::string::npos);
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

void fuzz_One(std::string &X_strBytes)
{
    trace::OPTIONS sOptions;
    const unsigned uSwitches = fuzz_Byte(X_strBytes);
    sOptions.lHandle = static_cast<long>(uSwitches & 1) * 4711;
    sOptions.bJson = (uSwitches & 2) != 0;
    sOptions.strFile = "log";
    sOptions.strHtml = "/dev/null";
    sOptions.strSince = fuzz_Text(X_strBytes, '\n');
    sWorld.mapFiles["log"] = fuzz_Text(X_strBytes, '\0');
    sWorld.mapFiles["act"] = X_strBytes;
    if (!sWorld.mapFiles["act"].empty()) sOptions.strActLog = "act";
    try
    {
        trace::Run(sOptions);
        CHECK(!sWorld.strWritten.empty());
        CheckPage(sWorld.strWritten);
    } catch (const std::runtime_error &sError) // USAGE_ERROR and FAILURE
    {
        const bool bNoLog = std::string(sError.what()).find("not a trace log") != std::string::npos;
        CHECK(bNoLog || !sOptions.strSince.empty());
    }
}
