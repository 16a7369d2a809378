// The utility's answers, through the whole task: a session, a job, their close, a query. Its folder
// and the texts of its options are any bytes, too.
#include "fuzz.h"

#include <algorithm>

// Runs a task; the first command line of it must hold the word.
static void Run(ENUM_COM_TASK eTask, const std::string &I_strWord)
{
    const size_t uFirst = sWorld.vecCommands.size();
    const int iRet = com_intf(eTask, &sGlobal.sCOM);
    CHECK(iRet == -1 || iRet == 0 || iRet == 1);
    CHECK(sWorld.vecCommands.size() <= uFirst + 2);
    fuzz_CheckRecord();
    for (size_t uRun = uFirst; uRun < sWorld.vecCommands.size(); uRun++)
    {
        const std::vector<std::string> vecWords = fuzz_ShellWords(sWorld.vecCommands[uRun]);
        const std::string strFolder =
            vecWords[0].substr(0, vecWords[0].rfind("/olm_com_interface"));
        CHECK(strFolder.size() < vecWords[0].size());
        CHECK(sWorld.mapFiles["/etc/korva2000.ini"].find(strFolder) != std::string::npos);
        CHECK(uRun != uFirst || std::count(vecWords.begin(), vecWords.end(), I_strWord) != 0);
    }
}

// A password that stands once in the answers, as a password, is in no line of the trace.
static void CheckSecret(const std::string &I_strAnswers)
{
    static const std::string strSecret = "S3CRET-pw";
    const size_t uPlace = I_strAnswers.find(strSecret);
    if (sGlobal.sObject.sSMS.szPass == strSecret && uPlace == I_strAnswers.rfind(strSecret))
        CHECK(sWorld.strTrace.find(strSecret) == std::string::npos);
}

void fuzz_One(std::string &X_strBytes)
{
    const unsigned uMode = fuzz_Byte(X_strBytes);
    if ((uMode & 32) != 0)
    {
        sWorld.mapFiles["/etc/korva2000.ini"] = fuzz_Text(X_strBytes, '|');
        for (const char *cpName : {"KORVA_SERVER", "KORVA_JOB", "KORVA_TAPE_SERVER", "KORVA_DRIVE",
                                   "KORVA_POOL", "KORVA_COM_TIMEOUT"})
            sWorld.mapEnvironment[cpName] = fuzz_Text(X_strBytes, '|').c_str();
    }
    std::string strAnswers;
    while (!X_strBytes.empty() && sWorld.vecAnswers.size() < 4)
    {
        sWorld.vecAnswers.push_back(fuzz_Text(X_strBytes, '|'));
        strAnswers += sWorld.vecAnswers.back() + "\n";
    }
    fuzz_Init(uMode & 3, (uMode & 4) != 0, true);
    strcpy(sGlobal.sObject.sBSA_Object.objectName.objectSpaceName, "root;dbs");
    strcpy(sGlobal.sObject.sBSA_Object.objectName.pathName, "'level 0'");
    sGlobal.sQueryDescriptor.objectName = sGlobal.sObject.sBSA_Object.objectName;

    if ((uMode & 8) != 0) return Run(COM_INFO, "root;dbs@'level 0'");
    const bool bWrite = (uMode & 16) != 0;
    Run(bWrite ? COM_OPEN_WRITE : COM_OPEN_READ, bWrite ? "-b" : "-r");
    CheckSecret(strAnswers);
    const bool bJob = sGlobal.sCOM.iOpenJobStarted != 0;
    Run(bWrite ? COM_CLOSE_WRITE : COM_CLOSE_READ,
        (bJob ? "closejob:" : "close:") + std::string(sGlobal.sCOM.szSessionID));
}
