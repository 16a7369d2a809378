#include "transfer/transfer.h"

#include <cstdio>
#include <vector>

#include "library/library.h"
#include "transfer/manifest.h"
#include "transfer/meter.h"
#include "transfer/status.h"
#include "transfer/verify.h"

namespace transfer
{
namespace
{
void Report(const char *cpVerb, const base::CONNECTION &I_sConnection, const OPTIONS &I_sOptions,
            const BSA_ObjectDescriptor &I_sObject, const std::string &I_strSummary)
{
    const std::string strCopy =
        I_sConnection.bInformix ? "copy id " + std::to_string(I_sObject.copyId.right) + ", " : "";
    fprintf(stderr, "xbsactl: %s \"%s\": %s%s\n", cpVerb,
            base::Visible(I_sOptions.sObject.strName).c_str(), strCopy.c_str(),
            I_strSummary.c_str());
}

// A job that closed well is the utility's word; that a query offers the copy is what a restore will
// need. A newer copy is another process's.
void CheckStored(library::CSession &I_sSession, const OPTIONS &I_sOptions,
                 const BSA_ObjectDescriptor &I_sObject)
{
    I_sSession.Next();
    const std::vector<BSA_ObjectDescriptor> vecCopies = I_sSession.Copies(I_sOptions.sObject);
    if (vecCopies.empty() || vecCopies.front().copyId.right < I_sObject.copyId.right)
        throw base::FAILURE("the server does not offer copy id " +
                            std::to_string(I_sObject.copyId.right) + " after the store");
}

std::string ReceiveAll(library::CSession &I_sSession, base::COutput &I_sOutput, CMeter &I_sMeter)
{
    std::vector<char> vecBlock(library::BLOCK_SIZE);
    size_t uLength = library::BLOCK_SIZE;
    while (uLength == library::BLOCK_SIZE)
    {
        uLength = I_sSession.Receive(vecBlock.data());
        I_sMeter.Add(vecBlock.data(), uLength);
        try
        {
            I_sOutput.Write(vecBlock.data(), uLength);
        } catch (const base::FAILURE &)
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
STORED SendAll(library::CSession &I_sSession, base::CInput &I_sInput,
               const base::CONNECTION &I_sConnection, BSA_ObjectDescriptor &I_sObject)
{
    std::vector<char> vecBlock(library::BLOCK_SIZE);
    CMeter sMeter(I_sInput.Size(), WantsBar(I_sConnection));
    CountStatus(I_sInput.Size());
    I_sSession.Create(I_sObject);
    size_t uLength = library::BLOCK_SIZE;
    while (uLength == library::BLOCK_SIZE)
    {
        uLength = I_sInput.Read(vecBlock.data(), library::BLOCK_SIZE);
        if (uLength > 0) I_sSession.Send(vecBlock.data(), uLength);
        sMeter.Add(vecBlock.data(), uLength);
    }
    I_sSession.EndData();
    return {sMeter.Digest(), sMeter.Bytes(), sMeter.Summary()};
}

// The object is stored: what fails from here on does not undo it, and says so.
void NoteDigest(const base::CONNECTION &I_sConnection, const OPTIONS &I_sOptions,
                const BSA_ObjectDescriptor &I_sObject, const std::string &I_strDigest)
{
    const unsigned uCopyId = I_sConnection.bInformix ? I_sObject.copyId.right : 0;
    try
    {
        PutIntoManifest(I_sOptions.strManifest,
                        {I_strDigest, ManifestName(I_sConnection, I_sOptions.sObject), uCopyId});
    } catch (const base::FAILURE &sFailure)
    {
        throw base::FAILURE(std::string("the object is stored, but not in the manifest: ") +
                            sFailure.what());
    }
}

void VerifyStored(library::CSession &I_sSession, const base::CONNECTION &I_sConnection,
                  const OPTIONS &I_sOptions, BSA_ObjectDescriptor &I_sObject,
                  const STORED &I_sStored)
{
    SayStatus("reading back " + base::Quoted(ManifestName(I_sConnection, I_sOptions.sObject)));
    CountStatus(I_sStored.uBytes);
    I_sSession.Next();
    try
    {
        Compare(I_sSession, I_sConnection, I_sObject, I_sStored.strDigest);
    } catch (const base::FAILURE &sFailure)
    {
        throw base::FAILURE(std::string("the object is stored, but does not verify: ") +
                            sFailure.what());
    }
}
} // namespace

void Store(const base::CONNECTION &I_sConnection, const OPTIONS &I_sOptions)
{
    if (!I_sOptions.strManifest.empty()) PrepareManifest(I_sOptions.strManifest);
    base::CInput sInput(I_sOptions.strFile);
    library::CSession sSession(I_sConnection);
    BSA_ObjectDescriptor sObject = library::Descriptor(I_sConnection, I_sOptions.sObject);
    STORED sStored = SendAll(sSession, sInput, I_sConnection, sObject);
    if (I_sConnection.bInformix) CheckStored(sSession, I_sOptions, sObject);
    if (!I_sOptions.strManifest.empty())
        NoteDigest(I_sConnection, I_sOptions, sObject, sStored.strDigest);
    if (I_sOptions.bVerify)
    {
        VerifyStored(sSession, I_sConnection, I_sOptions, sObject, sStored);
        sStored.strSummary += ", verified";
    }
    sSession.Close();
    Report("stored", I_sConnection, I_sOptions, sObject, sStored.strSummary);
}

void Restore(const base::CONNECTION &I_sConnection, const OPTIONS &I_sOptions)
{
    base::COutput sOutput(I_sOptions.strFile);
    library::CSession sSession(I_sConnection);
    BSA_ObjectDescriptor sObject = library::Descriptor(I_sConnection, I_sOptions.sObject);
    std::string strSummary;
    {
        CMeter sMeter(0, WantsBar(I_sConnection));
        if (I_sConnection.bInformix && I_sOptions.sObject.uCopyId == 0)
            sSession.TakeNewest(I_sOptions.sObject, sObject);
        sSession.Get(sObject);
        strSummary = ReceiveAll(sSession, sOutput, sMeter);
        sSession.EndData();
    }
    sSession.Close();
    sOutput.Commit();
    Report("restored", I_sConnection, I_sOptions, sObject, strSummary);
}
} // namespace transfer
