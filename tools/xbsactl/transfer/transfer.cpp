#include "transfer/transfer.h"

#include <cstdio>
#include <vector>

#include "base/errors.h"
#include "base/files.h"
#include "library/session.h"
#include "transfer/manifest.h"
#include "transfer/meter.h"
#include "transfer/status.h"
#include "transfer/verify.h"

namespace
{
void Report(const char *cpVerb, const SETTINGS &I_sSettings, const BSA_ObjectDescriptor &I_sObject,
            const std::string &I_strSummary)
{
    const std::string strCopy =
        I_sSettings.bInformix ? "copy id " + std::to_string(I_sObject.copyId.right) + ", " : "";
    fprintf(stderr, "xbsactl: %s \"%s\": %s%s\n", cpVerb, Visible(I_sSettings.strName).c_str(),
            strCopy.c_str(), I_strSummary.c_str());
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
struct STORED
{
    std::string strDigest;
    uint64_t uBytes;
    std::string strSummary;
};

// A failed read leaves without BSAEndData, and the end of the process resets the data connection.
// An orderly end would tell the server that the short object is a whole one.
STORED SendAll(CSession &I_sSession, CInput &I_sInput, const SETTINGS &I_sSettings,
               BSA_ObjectDescriptor &I_sObject)
{
    std::vector<char> vecBlock(BLOCK_SIZE);
    CMeter sMeter(I_sInput.Size(), meter_WantsBar(I_sSettings));
    status_Count(I_sInput.Size());
    I_sSession.Create(I_sObject);
    size_t uLength = BLOCK_SIZE;
    while (uLength == BLOCK_SIZE)
    {
        uLength = I_sInput.Read(vecBlock.data(), BLOCK_SIZE);
        if (uLength > 0) I_sSession.Send(vecBlock.data(), uLength);
        sMeter.Add(vecBlock.data(), uLength);
    }
    I_sSession.EndData();
    return {sMeter.Digest(), sMeter.Bytes(), sMeter.Summary()};
}

// The object is stored: what fails from here on does not undo it, and says so.
void PutIntoManifest(const SETTINGS &I_sSettings, const BSA_ObjectDescriptor &I_sObject,
                     const std::string &I_strDigest)
{
    const unsigned uCopyId = I_sSettings.bInformix ? I_sObject.copyId.right : 0;
    try
    {
        manifest_Put(I_sSettings.strManifest, {I_strDigest, manifest_Name(I_sSettings), uCopyId});
    } catch (const FAILURE &sFailure)
    {
        throw FAILURE(std::string("the object is stored, but not in the manifest: ") +
                      sFailure.what());
    }
}

void VerifyStored(CSession &I_sSession, const SETTINGS &I_sSettings,
                  BSA_ObjectDescriptor &I_sObject, const STORED &I_sStored)
{
    status_Say("reading back " + files_Quoted(manifest_Name(I_sSettings)));
    status_Count(I_sStored.uBytes);
    I_sSession.Next();
    try
    {
        verify_Compare(I_sSession, I_sSettings, I_sObject, I_sStored.strDigest);
    } catch (const FAILURE &sFailure)
    {
        throw FAILURE(std::string("the object is stored, but does not verify: ") + sFailure.what());
    }
}
} // namespace

void transfer_Store(const SETTINGS &I_sSettings)
{
    if (!I_sSettings.strManifest.empty()) manifest_Prepare(I_sSettings.strManifest);
    CInput sInput(I_sSettings.strFile);
    CSession sSession(I_sSettings);
    BSA_ObjectDescriptor sObject = session_Object(I_sSettings);
    STORED sStored = SendAll(sSession, sInput, I_sSettings, sObject);
    if (I_sSettings.bInformix) CheckStored(sSession, I_sSettings, sObject);
    if (!I_sSettings.strManifest.empty()) PutIntoManifest(I_sSettings, sObject, sStored.strDigest);
    if (I_sSettings.bVerify)
    {
        VerifyStored(sSession, I_sSettings, sObject, sStored);
        sStored.strSummary += ", verified";
    }
    sSession.Close();
    Report("stored", I_sSettings, sObject, sStored.strSummary);
}

void transfer_Restore(const SETTINGS &I_sSettings)
{
    COutput sOutput(I_sSettings.strFile);
    CSession sSession(I_sSettings);
    BSA_ObjectDescriptor sObject = session_Object(I_sSettings);
    std::string strSummary;
    {
        CMeter sMeter(0, meter_WantsBar(I_sSettings));
        if (I_sSettings.bInformix && I_sSettings.uCopyId == 0)
            sSession.TakeNewest(I_sSettings, sObject);
        sSession.Get(sObject);
        strSummary = ReceiveAll(sSession, sOutput, sMeter);
        sSession.EndData();
    }
    sSession.Close();
    sOutput.Commit();
    Report("restored", I_sSettings, sObject, strSummary);
}
