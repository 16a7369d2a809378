// The environment of BSAInit, and the process's own: any texts, with known names among them.
#include "fuzz.h"

#include <climits>
#include <unistd.h>

static void CheckFields(const BSA_ObjectOwner &I_sOwner)
{
    const STUCT_COM_INPUT &sCOM = sGlobal.sCOM;
    const _sSMS &sSMS = sGlobal.sObject.sSMS;
    CHECK(strchr(sSMS.szHostName, ':') == nullptr);
    CHECK((sGlobal.iQAB != 0) == (strcmp(I_sOwner.bsa_ObjectOwner, "INFORMIX") == 0));
    std::map<std::string, std::string> &mapNames = sWorld.mapEnvironment;
    if (sCOM.szDrive[0] != '\0') CHECK(mapNames["KORVA_DRIVE"] == sCOM.szDrive);
    if (sGlobal.iQAB != 0 && sCOM.szJobName[0] != '\0')
        CHECK(mapNames["KORVA_JOB"] == sCOM.szJobName);
    const std::string &strLog = sWorld.strWritten; // one line that ends, or more
    CHECK(strLog.empty() || (strLog[0] == ' ' && strLog.back() == '\n'));
}

void fuzz_One(std::string &X_strBytes)
{
    const unsigned uMode = fuzz_Byte(X_strBytes);
    BSA_ObjectOwner sOwner = {"INFORMIX", ""};
    if ((uMode & 1) == 0) memset(&sOwner, 'x', sizeof sOwner - 1);
    std::vector<std::string> vecEntries;
    while (!X_strBytes.empty()) vecEntries.push_back(fuzz_Text(X_strBytes, '\n').c_str());
    std::vector<char *> vecEnvironment;
    bool bVersion = false; // one that is not ours
    for (std::string &strEntry : vecEntries)
    {
        const size_t uName = strEntry.find('=');
        if (uName != std::string::npos)
            sWorld.mapEnvironment[strEntry.substr(0, uName)] = strEntry.substr(uName + 1);
        vecEnvironment.push_back(strEntry.data());
        if (strEntry.compare(0, 15, "BSA_API_VERSION") != 0) continue;
        bVersion |= strEntry.size() < 17 || strEntry[16] != '1';
    }
    vecEnvironment.push_back(nullptr);
    const std::vector<std::string> vecBefore = vecEntries;

    long lHandle = 0;
    const int iRet = BSAInit(&lHandle, nullptr, &sOwner, vecEnvironment.data());
    CHECK(iRet == (bVersion ? BSA_RC_VERSION_NOT_SUPPORTED : BSA_RC_SUCCESS));
    CHECK(vecEntries == vecBefore && lHandle == getpid());
    CHECK(BSAInit(&lHandle, nullptr, &sOwner, nullptr) == BSA_RC_INVALID_CALL_SEQUENCE);
    CheckFields(sOwner);
}
