#include "transfer/verify.h"

#include <cstdio>
#include <iostream>
#include <vector>

#include "transfer/manifest.h"
#include "transfer/meter.h"
#include "transfer/status.h"
#include "transfer/transfer.h"

namespace transfer
{
namespace
{
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
                            (I_sOptions.bAll ? "" : " " + base::Quoted(strName)));
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
        if (uAt == std::string::npos) throw base::FAILURE("the entry is not SPACE@NAME");
        sObject.strSpace = I_sEntry.strName.substr(0, uAt);
        sObject.strName = I_sEntry.strName.substr(uAt + 1);
        if (sObject.uCopyId == 0) sObject.uCopyId = I_sEntry.uCopyId;
    }
    library::CheckObject(I_sConnection, sObject);
    return sObject;
}

// What follows the name in the line of an object that is right.
std::string CompareEntry(library::CSession &I_sSession, const base::CONNECTION &I_sConnection,
                         const OPTIONS &I_sOptions, const MANIFEST_ENTRY &I_sEntry)
{
    const library::OBJECT sWanted = ObjectOf(I_sConnection, I_sOptions, I_sEntry);
    BSA_ObjectDescriptor sObject = library::Descriptor(I_sConnection, sWanted);
    if (I_sConnection.bInformix && sWanted.uCopyId == 0) I_sSession.TakeNewest(sWanted, sObject);
    const std::string strCopy =
        I_sConnection.bInformix ? "copy id " + std::to_string(sObject.copyId.right) + ", " : "";
    try
    {
        return strCopy +
               std::to_string(Compare(I_sSession, I_sConnection, sObject, I_sEntry.strDigest)) +
               " bytes";
    } catch (const base::FAILURE &sFailure)
    {
        throw base::FAILURE(strCopy + sFailure.what());
    }
}

// Prints the object's line, at once: a drill over many objects takes its time.
bool VerifyEntry(library::CSession &I_sSession, const base::CONNECTION &I_sConnection,
                 const OPTIONS &I_sOptions, const MANIFEST_ENTRY &I_sEntry)
{
    std::string strText;
    bool bGood = false;
    try
    {
        strText = CompareEntry(I_sSession, I_sConnection, I_sOptions, I_sEntry);
        bGood = true;
    } catch (const std::runtime_error &sFailure)
    {
        strText = sFailure.what();
    }
    std::cout << (bGood ? "ok    " : "FAIL  ") << base::Printable(I_sEntry.strName + ": " + strText)
              << std::endl;
    return bGood;
}
} // namespace

uint64_t Compare(library::CSession &I_sSession, const base::CONNECTION &I_sConnection,
                 BSA_ObjectDescriptor &I_sObject, const std::string &I_strDigest)
{
    CMeter sMeter(0, WantsBar(I_sConnection));
    std::vector<char> vecBlock(library::BLOCK_SIZE);
    size_t uLength = library::BLOCK_SIZE;
    I_sSession.Get(I_sObject);
    while (uLength == library::BLOCK_SIZE)
    {
        uLength = I_sSession.Receive(vecBlock.data());
        sMeter.Add(vecBlock.data(), uLength);
    }
    I_sSession.EndData();
    if (sMeter.Digest() != I_strDigest)
        throw base::FAILURE("differs: SHA-256 is " + sMeter.Digest() + " and should be " +
                            I_strDigest);
    return sMeter.Bytes();
}

// Names are those of the manifest with --all, and each is checked in its turn.
void CheckVerify(const OPTIONS &I_sOptions)
{
    if (I_sOptions.strManifest.empty())
        throw base::USAGE_ERROR("verify needs --manifest: the file that store keeps with that "
                                "option");
    if (I_sOptions.sObject.strName.empty() && !I_sOptions.bAll)
        throw base::USAGE_ERROR("verify needs NAME or --all");
    if (I_sOptions.bAll &&
        (I_sOptions.sObject.uCopyId != 0 || !I_sOptions.sObject.strSpace.empty()))
        throw base::USAGE_ERROR("--all takes spaces and copies from the manifest");
}

// One session with a transaction for each object: the library begins afresh with each, also after
// one that failed.
void Verify(const base::CONNECTION &I_sConnection, const OPTIONS &I_sOptions)
{
    const std::vector<MANIFEST_ENTRY> vecEntries = ChosenEntries(I_sConnection, I_sOptions);
    library::CSession sSession(I_sConnection);
    size_t uDone = 0;
    size_t uBad = 0;
    for (const MANIFEST_ENTRY &sEntry : vecEntries)
    {
        if (uDone > 0) sSession.Next();
        uDone++;
        SayStatus("verify " + base::Quoted(sEntry.strName) + ", object " + std::to_string(uDone) +
                  " of " + std::to_string(vecEntries.size()));
        if (!VerifyEntry(sSession, I_sConnection, I_sOptions, sEntry)) uBad++;
    }
    sSession.Close();
    if (uBad > 0)
        throw base::FAILURE(std::to_string(uBad) + " of " + std::to_string(uDone) +
                            " objects failed to verify");
    fprintf(stderr, "xbsactl: verified %zu object%s\n", uDone, uDone == 1 ? "" : "s");
}
} // namespace transfer
