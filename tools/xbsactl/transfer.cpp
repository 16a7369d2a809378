#include "transfer.h"

#include <unistd.h>

#include <cstdio>
#include <vector>

#include "errors.h"
#include "files.h"
#include "meter.h"
#include "session.h"

namespace
{
// The bar and trace lines on the same terminal would spoil each other.
bool WantsBar(const SETTINGS &I_sSettings)
{
    const bool bTraced = I_sSettings.iTraceLevel != -1 && I_sSettings.strTraceFile.empty();
    return isatty(STDERR_FILENO) == 1 && !bTraced;
}

void Report(const char *cpVerb, const SETTINGS &I_sSettings, const BSA_ObjectDescriptor &I_sObject,
            const std::string &I_strSummary)
{
    const std::string strCopy =
        I_sSettings.bInformix ? "copy id " + std::to_string(I_sObject.copyId.right) + ", " : "";
    fprintf(stderr, "xbsactl: %s \"%s\": %s%s\n", cpVerb, I_sSettings.strName.c_str(),
            strCopy.c_str(), I_strSummary.c_str());
}

void ChooseNewestCopy(CSession &I_sSession, const SETTINGS &I_sSettings,
                      BSA_ObjectDescriptor &I_sObject)
{
    BSA_QueryDescriptor sQuery = session_Query(I_sSettings);
    const std::vector<BSA_ObjectDescriptor> vecCopies = I_sSession.Query(sQuery);
    if (vecCopies.empty()) throw FAILURE("no match");
    I_sObject.copyId = vecCopies.front().copyId;
}

// A job that closed well is the utility's word; that a query offers the copy is what a restore will
// need. A newer copy is another process's.
void CheckStored(CSession &I_sSession, const SETTINGS &I_sSettings,
                 const BSA_ObjectDescriptor &I_sObject)
{
    I_sSession.Next();
    BSA_QueryDescriptor sQuery = session_Query(I_sSettings);
    const std::vector<BSA_ObjectDescriptor> vecCopies = I_sSession.Query(sQuery);
    if (vecCopies.empty() || vecCopies.front().copyId.right < I_sObject.copyId.right)
        throw FAILURE("the server does not offer copy id " +
                      std::to_string(I_sObject.copyId.right) + " after the store");
}

std::string ReceiveAll(CSession &I_sSession, COutput &I_sOutput, CMeter &I_sMeter)
{
    std::vector<char> vecBlock(BLOCK_SIZE);
    size_t uLength = BLOCK_SIZE;
    while (uLength == BLOCK_SIZE)
    {
        uLength = I_sSession.Receive(vecBlock.data());
        I_sMeter.Add(vecBlock.data(), uLength);
        try
        {
            I_sOutput.Write(vecBlock.data(), uLength);
        } catch (const FAILURE &)
        {
            I_sSession.Abandon();
            throw;
        }
    }
    return I_sMeter.Summary();
}
} // namespace

// A failed read leaves without BSAEndData, and the end of the process resets the data connection.
// An orderly end would tell the server that the short object is a whole one.
void transfer_Store(const SETTINGS &I_sSettings)
{
    CInput sInput(I_sSettings.strFile);
    CSession sSession(I_sSettings);
    BSA_ObjectDescriptor sObject = session_Object(I_sSettings);
    std::vector<char> vecBlock(BLOCK_SIZE);
    std::string strSummary;
    {
        CMeter sMeter(sInput.Size(), WantsBar(I_sSettings));
        sSession.Create(sObject);
        size_t uLength = BLOCK_SIZE;
        while (uLength == BLOCK_SIZE)
        {
            uLength = sInput.Read(vecBlock.data(), BLOCK_SIZE);
            if (uLength > 0) sSession.Send(vecBlock.data(), uLength);
            sMeter.Add(vecBlock.data(), uLength);
        }
        sSession.EndData();
        strSummary = sMeter.Summary();
    }
    if (I_sSettings.bInformix) CheckStored(sSession, I_sSettings, sObject);
    sSession.Close();
    Report("stored", I_sSettings, sObject, strSummary);
}

void transfer_Restore(const SETTINGS &I_sSettings)
{
    COutput sOutput(I_sSettings.strFile);
    CSession sSession(I_sSettings);
    BSA_ObjectDescriptor sObject = session_Object(I_sSettings);
    std::string strSummary;
    {
        CMeter sMeter(0, WantsBar(I_sSettings));
        if (I_sSettings.bInformix && I_sSettings.uCopyId == 0)
            ChooseNewestCopy(sSession, I_sSettings, sObject);
        sSession.Get(sObject);
        strSummary = ReceiveAll(sSession, sOutput, sMeter);
        sSession.EndData();
    }
    sSession.Close();
    sOutput.Commit();
    Report("restored", I_sSettings, sObject, strSummary);
}
