#include <cstdio>
#include <iostream>

#include "transfer/parts.h"

namespace transfer
{
namespace
{
// What became of one object.
struct VERDICT
{
    std::string strName; // as the manifest has it
    unsigned uCopyId = 0;
    uint64_t uBytes = 0;
    std::string strError; // empty: it is the same
};

// Those of one name, or all; never none.
std::vector<MANIFEST_ENTRY> ChosenEntries(const base::CONNECTION &I_sConnection,
                                          const OPTIONS &I_sOptions)
{
    const std::string strName = ManifestName(I_sConnection, I_sOptions.sObject);
    std::vector<MANIFEST_ENTRY> vecChosen;
    for (const MANIFEST_ENTRY &sEntry : ReadManifest(I_sOptions.strManifest))
        if (I_sOptions.bAll || sEntry.strName == strName) vecChosen.push_back(sEntry);
    if (vecChosen.empty())
        throw base::FAILURE("manifest " + base::Quoted(I_sOptions.strManifest) + " has no entry" +
                                (I_sOptions.bAll ? "" : " " + base::Quoted(strName)),
                            base::EXIT_NO_MATCH);
    return vecChosen;
}

// The object of an entry as it would be restored: without --copy-id the copy that the digest belongs
// to.
library::OBJECT ObjectOf(const base::CONNECTION &I_sConnection, const OPTIONS &I_sOptions,
                         const MANIFEST_ENTRY &I_sEntry)
{
    library::OBJECT sObject = I_sOptions.sObject;
    sObject.strName = I_sEntry.strName;
    if (I_sConnection.bInformix)
    {
        const size_t uAt = I_sEntry.strName.find('@');
        if (uAt == std::string::npos) throw base::FileFailure("the entry is not SPACE@NAME");
        sObject.strSpace = I_sEntry.strName.substr(0, uAt);
        sObject.strName = I_sEntry.strName.substr(uAt + 1);
        if (sObject.uCopyId == 0) sObject.uCopyId = I_sEntry.uCopyId;
    }
    library::CheckObject(I_sConnection, sObject);
    return sObject;
}

VERDICT VerifyEntry(library::CSession &I_sSession, const base::CONNECTION &I_sConnection,
                    const OPTIONS &I_sOptions, const MANIFEST_ENTRY &I_sEntry)
{
    VERDICT sVerdict;
    sVerdict.strName = I_sEntry.strName;
    try
    {
        const library::OBJECT sWanted = ObjectOf(I_sConnection, I_sOptions, I_sEntry);
        BSA_ObjectDescriptor sObject = library::Descriptor(I_sConnection, sWanted);
        if (I_sConnection.bInformix && sWanted.uCopyId == 0)
            I_sSession.TakeNewest(sWanted, sObject);
        sVerdict.uCopyId = I_sConnection.bInformix ? sObject.copyId.right : 0;
        sVerdict.uBytes = Compare(I_sSession, I_sConnection, sObject, I_sEntry.strDigest);
    } catch (const base::FAILURE &sFailure)
    {
        sVerdict.strError = base::Printable(sFailure.what());
    }
    return sVerdict;
}

// At once: a drill over many objects takes its time.
void PrintLine(const VERDICT &I_sVerdict)
{
    const bool bGood = I_sVerdict.strError.empty();
    const std::string strCopy =
        I_sVerdict.uCopyId != 0 ? "copy id " + std::to_string(I_sVerdict.uCopyId) + ", " : "";
    const std::string strText =
        bGood ? std::to_string(I_sVerdict.uBytes) + " bytes" : I_sVerdict.strError;
    std::cout << (bGood ? "ok    " : "FAIL  ")
              << base::Printable(I_sVerdict.strName + ": " + strCopy + strText) << std::endl;
}

base::JSON Json(const VERDICT &I_sVerdict)
{
    base::JSON sObject = {{"name", I_sVerdict.strName}, {"ok", I_sVerdict.strError.empty()}};
    if (I_sVerdict.uCopyId != 0) sObject["copy_id"] = I_sVerdict.uCopyId;
    if (I_sVerdict.strError.empty()) sObject["bytes"] = I_sVerdict.uBytes;
    else sObject["error"] = I_sVerdict.strError;
    return sObject;
}
} // namespace

uint64_t Compare(library::CSession &I_sSession, const base::CONNECTION &I_sConnection,
                 BSA_ObjectDescriptor &I_sObject, const std::string &I_strDigest)
{
    CMeter sMeter(I_sConnection, 0);
    ReceiveObject(I_sSession, I_sObject, sMeter, [](const char *, size_t) {});
    if (sMeter.Digest() != I_strDigest)
        throw base::FAILURE("differs: SHA-256 is " + sMeter.Digest() + " and should be " +
                            I_strDigest);
    return sMeter.Bytes();
}

// Names are those of the manifest with --all, and each is checked in its turn.
void CheckVerify(const base::CONNECTION & /*I_sConnection*/, OPTIONS &X_sOptions)
{
    if (X_sOptions.strManifest.empty())
        throw base::USAGE_ERROR("verify needs --manifest: the file that store keeps with that "
                                "option");
    if (X_sOptions.sObject.strName.empty() && !X_sOptions.bAll)
        throw base::USAGE_ERROR("verify needs NAME or --all");
    if (X_sOptions.bAll &&
        (X_sOptions.sObject.uCopyId != 0 || !X_sOptions.sObject.strSpace.empty()))
        throw base::USAGE_ERROR("--all takes spaces and copies from the manifest");
}

// One session with a transaction for each object: the library begins afresh with each, also after
// one that failed.
void Verify(const base::CONNECTION &I_sConnection, const OPTIONS &I_sOptions)
{
    const std::vector<MANIFEST_ENTRY> vecEntries = ChosenEntries(I_sConnection, I_sOptions);
    library::CSession sSession(I_sConnection);
    base::JSON sObjects = base::JSON::array();
    size_t uBad = 0;
    for (const MANIFEST_ENTRY &sEntry : vecEntries)
    {
        if (!sObjects.empty()) sSession.Next();
        SayStatus("verify " + base::Quoted(sEntry.strName) + ", object " +
                  std::to_string(sObjects.size() + 1) + " of " + std::to_string(vecEntries.size()));
        const VERDICT sVerdict = VerifyEntry(sSession, I_sConnection, I_sOptions, sEntry);
        if (!I_sOptions.bJson) PrintLine(sVerdict);
        sObjects.push_back(Json(sVerdict));
        if (!sVerdict.strError.empty()) uBad++;
    }
    sSession.Close();
    if (I_sOptions.bJson)
        std::cout << base::Dump({{"schema", SCHEMA}, {"failed", uBad}, {"objects", sObjects}})
                  << '\n';
    const std::string strCount = std::to_string(vecEntries.size());
    if (uBad > 0)
        throw base::FAILURE(std::to_string(uBad) + " of " + strCount + " objects failed to verify");
    if (I_sOptions.bJson) return;
    std::cerr << "xbsactl: verified " << strCount << (strCount == "1" ? " object\n" : " objects\n");
}
} // namespace transfer
