// The readers of texts, each against a plain model of it. The first byte chooses one.
#include "fuzz.h"

#include <algorithm>
#include <cstdlib>

#include <unistd.h>

// "host[:port[:user:password]]": half a login is never taken for a login.
static void HostSpec(std::string &X_strBytes)
{
    std::string strSpec = fuzz_Text(X_strBytes, '\0');
    std::string strRest = strSpec;
    std::vector<char> vecHost(4096), vecPort(8), vecUser(4096), vecPass(4096);
    const int iRet = ParseCLIHostSpec(strSpec.data(), vecHost.data(), vecPort.data(),
                                      vecUser.data(), vecPass.data());
    CHECK(iRet == 0 || iRet == 1);
    if (iRet == 0) return;
    std::string strItems[4];
    for (std::string &strItem : strItems) strItem = fuzz_Text(strRest, ':');
    CHECK(strRest.empty() && !strItems[0].empty() && strItems[0] == vecHost.data());
    CHECK((strItems[1].empty() ? "11001" : strItems[1]) == vecPort.data());
    CHECK(strItems[2] == vecUser.data() || strcmp(XBSA_SECURE_USER, vecUser.data()) == 0);
    CHECK(strItems[3] == vecPass.data() && vecUser[0] != '\0');
}

// "150 ... TAPE 17 SEGMENT 3": the numbers are those that follow the words.
static void StorReply(std::string &X_strBytes)
{
    fuzz_Init(fuzz_Byte(X_strBytes) & 3, false);
    std::string strReply = fuzz_Text(X_strBytes, '\0');
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

static bool IsBlank(const std::string &I_strText)
{
    return I_strText.find_first_not_of(' ') == std::string::npos;
}

// The trimming of texts, as it has always been: to the left the old end stays behind the new one.
static void Trim(std::string strText)
{
    CHECK(x_IsEmptyString(strText.c_str()) == IsBlank(strText));
    const std::string strRight = strText.substr(0, strText.find_last_not_of(' ') + 1);
    CHECK(x_RTrim(strText.data()) == strRight && strText.c_str() == strRight);
    const size_t uLead = std::min(strRight.find_first_not_of(' '), strRight.size());
    CHECK(x_LTrim(strText.data()) ==
          strRight.substr(uLead) + strRight.substr(strRight.size() - uLead));
}

// The keyword matcher; in upper case where letter case does not count.
static void Keyword(std::string &X_strBytes)
{
    const bool bExact = (fuzz_Byte(X_strBytes) & 1) != 0;
    const int iMinimum = static_cast<int>(fuzz_Byte(X_strBytes)) - 4;
    std::string strKeyword = fuzz_Text(X_strBytes, '\0');
    const std::string strEnds = fuzz_Text(X_strBytes, '\0');
    std::string strInput = fuzz_Text(X_strBytes, '\0');
    const int iMatch = x_MatchKeyword(strInput.c_str(), strKeyword.c_str(), iMinimum,
                                      strEnds.empty() ? nullptr : strEnds.c_str(), bExact);
    Trim(strInput);

    const bool bBlank = IsBlank(strInput) || IsBlank(strKeyword);
    if (!bExact)
        for (char *cpText : {strInput.data(), strKeyword.data()})
            for (cpText = strupr(cpText); *cpText != '\0'; cpText++)
                CHECK(*cpText < 'a' || *cpText > 'z');
    strInput.resize(std::min(strInput.find_first_of(strEnds), strInput.size()));
    const size_t uMinimum = iMinimum > 0 ? static_cast<size_t>(iMinimum) : strKeyword.size();
    const bool bLong = strInput.size() >= std::min(uMinimum, strKeyword.size());
    CHECK(iMatch == (strKeyword.rfind(strInput, 0) == 0 && bLong && !bBlank));
}

// The INI file that names the utility's folder: what would be run is in the file as a whole.
static void Ini(std::string &X_strBytes)
{
    static const std::string strUtility = "/olm_com_interface";
    fuzz_Init(fuzz_Byte(X_strBytes) & 3, false);
    unsigned uRoom = 1 + fuzz_Byte(X_strBytes) * 4;
    const std::string &strFile = sWorld.mapFiles["/etc/korva2000.ini"] = X_strBytes;
    std::vector<char> vecPath(uRoom);
    const size_t uSize = uRoom;
    const int iRet = find_com_intf(vecPath.data(), &uRoom);
    CHECK((iRet == 0 || iRet == 1) && strnlen(vecPath.data(), uSize) < uSize);
    if (iRet != 0) return;

    const std::string strPath = vecPath.data();
    CHECK(uRoom + strUtility.size() + 1 <= uSize && strPath.size() >= strUtility.size());
    const size_t uEnd = strPath.size() - strUtility.size();
    CHECK(strPath.substr(uEnd) == strUtility);
    CHECK(uRoom == uEnd || (uRoom == uEnd + 1 && strPath[uEnd] == '/'));
    const std::string strFolder = strPath.substr(0, uRoom);
    CHECK(strFolder.empty() || (strFolder.front() != ' ' && strFolder.back() != ' '));

    // The key stands in front of it and the line, or a NUL, ends behind it.
    const size_t uKey = strFile.find("SM_BIN_KORVA");
    CHECK(uKey != std::string::npos && strFolder.find('\n') == std::string::npos);
    for (size_t uPlace = strFile.find(strFolder, uKey); uPlace != std::string::npos;
         uPlace = strFile.find(strFolder, uPlace + 1))
    {
        const size_t uNext = strFile.find_first_not_of(" \r", uPlace + strFolder.size());
        if (uNext == std::string::npos || strFile[uNext] == '\n' || strFile[uNext] == '\0') return;
    }
    CHECK(strFolder == "a whole value of the file");
}

// The environment of BSAInit, and the process's own: any texts, with known names among them.
static void Environment(std::string &X_strBytes)
{
    BSA_ObjectOwner sOwner = {"INFORMIX", ""};
    const bool bInformix = (fuzz_Byte(X_strBytes) & 1) != 0;
    if (!bInformix) memset(&sOwner, 'x', sizeof sOwner - 1);
    std::vector<std::string> vecEntries;
    while (!X_strBytes.empty()) vecEntries.push_back(fuzz_Text(X_strBytes, '\n').c_str());
    std::vector<char *> vecEnvironment;
    std::map<std::string, std::string> &mapNames = sWorld.mapEnvironment;
    bool bVersion = false; // one that is not ours
    for (std::string &strEntry : vecEntries)
    {
        std::string strValue = strEntry;
        const std::string strName = fuzz_Text(strValue, '=');
        if (strName.size() < strEntry.size()) mapNames[strName] = strValue;
        vecEnvironment.push_back(strEntry.data());
        if (strEntry.rfind("BSA_API_VERSION", 0) == 0)
            bVersion |= strEntry.size() < 17 || strEntry[16] != '1';
    }
    vecEnvironment.push_back(nullptr);
    const std::vector<std::string> vecBefore = vecEntries;

    long lHandle = 0;
    const int iRet = BSAInit(&lHandle, nullptr, &sOwner, vecEnvironment.data());
    CHECK(iRet == (bVersion ? BSA_RC_VERSION_NOT_SUPPORTED : BSA_RC_SUCCESS));
    CHECK(vecEntries == vecBefore && lHandle == getpid());
    CHECK(BSAInit(&lHandle, nullptr, &sOwner, nullptr) == BSA_RC_INVALID_CALL_SEQUENCE);
    CHECK((sGlobal.iQAB != 0) == bInformix);
    CHECK(strchr(sGlobal.sObject.sSMS.szHostName, ':') == nullptr);
    const STUCT_COM_INPUT &sCOM = sGlobal.sCOM;
    if (sCOM.szDrive[0] != '\0') CHECK(mapNames["KORVA_DRIVE"] == sCOM.szDrive);
    if (bInformix && sCOM.szJobName[0] != '\0') CHECK(mapNames["KORVA_JOB"] == sCOM.szJobName);
    const std::string &strLog = sWorld.strWritten; // one line that ends, or more
    CHECK(strLog.empty() || (strLog[0] == ' ' && strLog.back() == '\n'));
}

void fuzz_One(std::string &X_strBytes)
{
    static void (*const fpaReaders[])(std::string &) = {HostSpec, StorReply, Keyword, Ini,
                                                        Environment};
    fpaReaders[fuzz_Byte(X_strBytes) % 5](X_strBytes);
}
