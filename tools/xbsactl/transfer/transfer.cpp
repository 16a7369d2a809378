#include "transfer/transfer.h"

#include <iomanip>
#include <iostream>

#include "transfer/parts.h"

namespace transfer
{
namespace
{
// The result of a successful command, as text or JSON.
void Report(const char *cpVerb, const base::CONNECTION &I_sConnection, const OPTIONS &I_sOptions,
            const BSA_ObjectDescriptor &I_sObject, const COUNT &I_sCount)
{
    const std::string &strName = I_sOptions.sObject.strName;
    const unsigned uCopyId = I_sObject.copyId.right;
    base::JSON sAnswer = {{"schema", SCHEMA}, {"name", strName}};
    if (I_sConnection.bInformix)
        sAnswer.update({{"space", I_sOptions.sObject.strSpace}, {"copy_id", uCopyId}});
    sAnswer.update({{"bytes", I_sCount.uBytes},
                    {"seconds", I_sCount.dSeconds},
                    {"bytes_per_second", I_sCount.dRate * 1e6},
                    {"sha256", I_sCount.strDigest},
                    {"verified", I_sOptions.bVerify}});
    const std::string strCopy =
        I_sConnection.bInformix ? base::Text("copy id ", uCopyId, ", ") : "";
    if (I_sOptions.bJson) std::cout << base::Dump(sAnswer) << '\n';
    else
        std::cerr << base::Text("xbsactl: ", cpVerb, " \"", base::Visible(strName), "\": ", strCopy,
                                I_sCount.uBytes, " bytes in ", I_sCount.dSeconds, " s, ",
                                std::setprecision(1), I_sCount.dRate, " MB/s, SHA-256 ",
                                I_sCount.strDigest, I_sOptions.bVerify ? ", verified\n" : "\n");
}

// The utility's good close is only a claim; a restore needs a query that finds the copy. A newer
// copy belongs to another process.
void CheckStored(library::CSession &I_sSession, const OPTIONS &I_sOptions,
                 const BSA_ObjectDescriptor &I_sObject)
{
    I_sSession.Next();
    const std::vector<BSA_ObjectDescriptor> vecCopies = I_sSession.Copies(I_sOptions.sObject);
    if (vecCopies.empty() || vecCopies.front().copyId.right < I_sObject.copyId.right)
        throw base::FAILURE(base::Text("the server does not offer copy id ", I_sObject.copyId.right,
                                       " after the store"),
                            base::EXIT_SERVER);
}

// The object is stored: a failure from here on does not undo that, and its message says so.
void AfterStore(library::CSession &I_sSession, const base::CONNECTION &I_sConnection,
                const OPTIONS &I_sOptions, BSA_ObjectDescriptor &I_sObject, const COUNT &I_sCount)
{
    const std::string strName = ManifestName(I_sConnection, I_sOptions.sObject);
    const unsigned uCopyId = I_sConnection.bInformix ? I_sObject.copyId.right : 0;
    const MANIFEST_ENTRY sEntry = {I_sCount.strDigest, strName, uCopyId, ""};
    const char *cpFault = "not in the manifest";
    try
    {
        PutIntoManifest(I_sOptions.strManifest, sEntry);
        if (!I_sOptions.bVerify) return;
        cpFault = "does not verify";
        SayStatus("reading back " + base::Quoted(strName));
        CountStatus(I_sCount.uBytes);
        I_sSession.Next();
        Compare(I_sSession, I_sConnection, I_sObject, sEntry);
    } catch (const base::FAILURE &sFailure)
    {
        const std::string strStored = base::Text("the object is stored, but ", cpFault, ": ");
        throw base::FAILURE(strStored + sFailure.what(), sFailure.iExit);
    }
}

using COPIES = std::vector<BSA_ObjectDescriptor>;

std::string Json(const library::OBJECT &I_sWanted, const COPIES &I_vecCopies)
{
    base::JSON sCopies = base::JSON::array();
    for (const BSA_ObjectDescriptor &sCopy : I_vecCopies)
        sCopies.push_back({{"copy_id", sCopy.copyId.right},
                           {"space", library::Field(sCopy.objectName.objectSpaceName)},
                           {"name", library::Field(sCopy.objectName.pathName)}});
    return base::Dump({{"schema", SCHEMA},
                       {"query", {{"space", I_sWanted.strSpace}, {"name", I_sWanted.strName}}},
                       {"copies", sCopies}});
}

void PrintTable(const COPIES &I_vecCopies)
{
    std::cout << "COPY ID     OBJECT\n" << std::left;
    for (const BSA_ObjectDescriptor &sCopy : I_vecCopies)
        std::cout << std::setw(12) << sCopy.copyId.right
                  << base::Printable(library::Field(sCopy.objectName.objectSpaceName) + "@" +
                                     library::Field(sCopy.objectName.pathName))
                  << '\n';
}
} // namespace

void CheckSession(base::CONNECTION &X_sConnection, const OPTIONS &I_sOptions)
{
    if (I_sOptions.strFile.empty()) throw base::USAGE_ERROR("FILE is empty");
    if (!I_sOptions.bAll && I_sOptions.vecJournals.empty())
        library::CheckObject(X_sConnection, I_sOptions.sObject);
    if (X_sConnection.bInformix) base::CheckVariables();
    else base::CheckPlain(X_sConnection);
}

void Store(base::CONNECTION &X_sConnection, const OPTIONS &I_sOptions)
{
    CheckSession(X_sConnection, I_sOptions);
    PutIntoManifest(I_sOptions.strManifest, {});
    base::CInput sInput(I_sOptions.strFile);
    library::CSession sSession(X_sConnection);
    BSA_ObjectDescriptor sObject = library::Descriptor(X_sConnection, I_sOptions.sObject);
    CountStatus(sInput.Size());
    sSession.Create(sObject);
    // A failed read skips BSAEndData, and the end of the process resets the data connection. After
    // an orderly end the server would treat the short object as complete.
    const COUNT sCount = MoveObject(sSession, X_sConnection, [&](char *cpBlock) {
        const size_t uLength = sInput.Read(cpBlock, library::BLOCK_SIZE);
        if (uLength > 0) sSession.Send(cpBlock, uLength);
        return uLength;
    });
    if (X_sConnection.bInformix) CheckStored(sSession, I_sOptions, sObject);
    AfterStore(sSession, X_sConnection, I_sOptions, sObject, sCount);
    sSession.Close();
    Report("stored", X_sConnection, I_sOptions, sObject, sCount);
}

void Restore(base::CONNECTION &X_sConnection, const OPTIONS &I_sOptions)
{
    if (I_sOptions.bJson && I_sOptions.strFile == "-")
        throw base::USAGE_ERROR("--json needs FILE: standard output is for the object");
    CheckSession(X_sConnection, I_sOptions);
    base::COutput sOutput(I_sOptions.strFile);
    library::CSession sSession(X_sConnection);
    BSA_ObjectDescriptor sObject = sSession.Find(I_sOptions.sObject);
    CountStatus(0);
    sSession.Get(sObject);
    const COUNT sCount = MoveObject(sSession, X_sConnection, [&](char *cpBlock) {
        const size_t uLength = sSession.Receive(cpBlock);
        try
        {
            sOutput.Write(cpBlock, uLength);
        } catch (const base::FAILURE &)
        {
            sSession.Abandon();
            throw;
        }
        return uLength;
    });
    sSession.Close();
    sOutput.Commit();
    Report("restored", X_sConnection, I_sOptions, sObject, sCount);
}

void Query(base::CONNECTION &X_sConnection, OPTIONS &X_sOptions)
{
    if (!X_sConnection.bInformix)
        throw base::USAGE_ERROR("query needs --informix: an FTP server has no catalogue");
    if (X_sOptions.sObject.strName.empty()) X_sOptions.sObject.strName = "%";
    if (X_sOptions.sObject.strSpace.empty()) X_sOptions.sObject.strSpace = "%";
    CheckSession(X_sConnection, X_sOptions);
    library::CSession sSession(X_sConnection);
    const COPIES vecCopies = sSession.Copies(X_sOptions.sObject);
    sSession.Close();
    if (X_sOptions.bJson) std::cout << Json(X_sOptions.sObject, vecCopies) << '\n';
    else if (!vecCopies.empty()) PrintTable(vecCopies);
    if (vecCopies.empty()) throw base::FAILURE("no match", base::EXIT_NO_MATCH);
}
} // namespace transfer
