#include "transfer/transfer.h"

#include <cstdio>
#include <iostream>

#include "transfer/parts.h"

namespace transfer
{
namespace
{
// The good end of a command, for a reader or as JSON.
void Report(const char *cpVerb, const base::CONNECTION &I_sConnection, const OPTIONS &I_sOptions,
            const BSA_ObjectDescriptor &I_sObject, const CMeter &I_sMeter)
{
    const unsigned uCopyId = I_sObject.copyId.right;
    const double dRate = Rate(I_sMeter.Bytes(), I_sMeter.Seconds());
    if (I_sOptions.bJson)
    {
        base::JSON sAnswer = {{"schema", SCHEMA}, {"name", I_sOptions.sObject.strName}};
        if (I_sConnection.bInformix) sAnswer["space"] = I_sOptions.sObject.strSpace;
        if (I_sConnection.bInformix) sAnswer["copy_id"] = uCopyId;
        sAnswer["bytes"] = I_sMeter.Bytes();
        sAnswer["seconds"] = I_sMeter.Seconds();
        sAnswer["bytes_per_second"] = dRate * 1e6;
        sAnswer["sha256"] = I_sMeter.Digest();
        sAnswer["verified"] = I_sOptions.bVerify;
        std::cout << base::Dump(sAnswer) << '\n';
        return;
    }
    const std::string strCopy =
        I_sConnection.bInformix ? "copy id " + std::to_string(uCopyId) + ", " : "";
    std::cerr << "xbsactl: " << cpVerb << " \"" << base::Visible(I_sOptions.sObject.strName)
              << "\": " << strCopy << I_sMeter.Bytes() << " bytes in "
              << Decimal(I_sMeter.Seconds(), 3) << " s, " << Decimal(dRate, 1) << " MB/s, SHA-256 "
              << I_sMeter.Digest() << (I_sOptions.bVerify ? ", verified\n" : "\n");
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
                                std::to_string(I_sObject.copyId.right) + " after the store",
                            base::EXIT_SERVER);
}

// A failed read leaves without BSAEndData, and the end of the process resets the data connection.
// An orderly end would make the short object a whole one for the server.
void SendAll(library::CSession &I_sSession, base::CInput &I_sInput, CMeter &X_sMeter,
             BSA_ObjectDescriptor &I_sObject)
{
    std::vector<char> vecBlock(library::BLOCK_SIZE);
    CountStatus(I_sInput.Size());
    I_sSession.Create(I_sObject);
    size_t uLength = library::BLOCK_SIZE;
    while (uLength == library::BLOCK_SIZE)
    {
        uLength = I_sInput.Read(vecBlock.data(), library::BLOCK_SIZE);
        if (uLength > 0) I_sSession.Send(vecBlock.data(), uLength);
        X_sMeter.Add(vecBlock.data(), uLength);
    }
    I_sSession.EndData();
    X_sMeter.End();
}

// The object is stored: what fails from here on does not undo it, and says so.
template <typename STEP> void AfterStore(const char *cpWhat, const STEP &I_fpStep)
{
    try
    {
        I_fpStep();
    } catch (const base::FAILURE &sFailure)
    {
        throw base::FAILURE(std::string("the object is stored, but ") + cpWhat + ": " +
                                sFailure.what(),
                            sFailure.iExit);
    }
}
} // namespace

void Store(const base::CONNECTION &I_sConnection, const OPTIONS &I_sOptions)
{
    const std::string strName = ManifestName(I_sConnection, I_sOptions.sObject);
    const bool bManifest = !I_sOptions.strManifest.empty();
    if (bManifest) PrepareManifest(I_sOptions.strManifest);
    base::CInput sInput(I_sOptions.strFile);
    library::CSession sSession(I_sConnection);
    BSA_ObjectDescriptor sObject = library::Descriptor(I_sConnection, I_sOptions.sObject);
    CMeter sMeter(I_sConnection, sInput.Size());
    SendAll(sSession, sInput, sMeter, sObject);
    if (I_sConnection.bInformix) CheckStored(sSession, I_sOptions, sObject);
    if (bManifest)
        AfterStore("not in the manifest", [&] {
            const unsigned uCopyId = I_sConnection.bInformix ? sObject.copyId.right : 0;
            PutIntoManifest(I_sOptions.strManifest, {sMeter.Digest(), strName, uCopyId});
        });
    if (I_sOptions.bVerify)
        AfterStore("does not verify", [&] {
            SayStatus("reading back " + base::Quoted(strName));
            CountStatus(sMeter.Bytes());
            sSession.Next();
            Compare(sSession, I_sConnection, sObject, sMeter.Digest());
        });
    sSession.Close();
    Report("stored", I_sConnection, I_sOptions, sObject, sMeter);
}

void CheckRestore(const base::CONNECTION & /*I_sConnection*/, OPTIONS &X_sOptions)
{
    if (X_sOptions.bJson && X_sOptions.strFile == "-")
        throw base::USAGE_ERROR("--json needs FILE: standard output is for the object");
}

void Restore(const base::CONNECTION &I_sConnection, const OPTIONS &I_sOptions)
{
    base::COutput sOutput(I_sOptions.strFile);
    library::CSession sSession(I_sConnection);
    BSA_ObjectDescriptor sObject = library::Descriptor(I_sConnection, I_sOptions.sObject);
    CMeter sMeter(I_sConnection, 0);
    if (I_sConnection.bInformix && I_sOptions.sObject.uCopyId == 0)
        sSession.TakeNewest(I_sOptions.sObject, sObject);
    ReceiveObject(sSession, sObject, sMeter, [&](const char *cpData, size_t uLength) {
        try
        {
            sOutput.Write(cpData, uLength);
        } catch (const base::FAILURE &)
        {
            sSession.Abandon();
            throw;
        }
    });
    sSession.Close();
    sOutput.Commit();
    Report("restored", I_sConnection, I_sOptions, sObject, sMeter);
}
} // namespace transfer
