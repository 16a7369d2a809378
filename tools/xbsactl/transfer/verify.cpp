#include <cstdio>
#include <iostream>

#include "transfer/parts.h"

namespace transfer
{
namespace
{
// Those of one name, or all; never none.
std::vector<MANIFEST_ENTRY> ChosenEntries(const base::CONNECTION &I_sConnection,
                                          const OPTIONS &I_sOptions)
{
    const std::string strName = ManifestName(I_sConnection, I_sOptions.sObject);
    std::vector<MANIFEST_ENTRY> vecChosen = ReadManifest(I_sOptions.strManifest);
    if (!I_sOptions.bAll)
        std::erase_if(vecChosen, [&](const auto &sEntry) { return sEntry.strName != strName; });
    if (vecChosen.empty())
        throw base::FAILURE("manifest " + base::Quoted(I_sOptions.strManifest) + " has no entry" +
                                (I_sOptions.bAll ? "" : " " + base::Quoted(strName)),
                            base::EXIT_NO_MATCH);
    return vecChosen;
}

// The object of an entry as it would be restored: without --copy-id the copy that the digest
// belongs to.
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

// What became of one object.
base::JSON VerifyEntry(library::CSession &I_sSession, const base::CONNECTION &I_sConnection,
                       const OPTIONS &I_sOptions, const MANIFEST_ENTRY &I_sEntry)
{
    base::JSON sVerdict = {{"name", I_sEntry.strName}, {"ok", false}};
    try
    {
        BSA_ObjectDescriptor sObject =
            I_sSession.Find(ObjectOf(I_sConnection, I_sOptions, I_sEntry));
        if (I_sConnection.bInformix) sVerdict["copy_id"] = sObject.copyId.right;
        sVerdict["bytes"] = Compare(I_sSession, I_sConnection, sObject, I_sEntry.strDigest);
        sVerdict["ok"] = true;
    } catch (const base::FAILURE &sFailure)
    {
        sVerdict["error"] = base::Printable(sFailure.what());
    }
    return sVerdict;
}

// At once: a drill over many objects takes its time.
void PrintLine(const std::string &I_strName, const base::JSON &I_sVerdict)
{
    const bool bGood = I_sVerdict["ok"];
    const std::string strCopy =
        I_sVerdict.contains("copy_id") ? base::Text("copy id ", I_sVerdict["copy_id"], ", ") : "";
    const std::string strText =
        bGood ? base::Text(I_sVerdict["bytes"], " bytes") : I_sVerdict["error"].get<std::string>();
    std::cout << (bGood ? "ok    " : "FAIL  ")
              << base::Printable(I_strName + ": " + strCopy + strText) << std::endl;
}
} // namespace

uint64_t Compare(library::CSession &I_sSession, const base::CONNECTION &I_sConnection,
                 BSA_ObjectDescriptor &I_sObject, const std::string &I_strDigest)
{
    I_sSession.Get(I_sObject);
    const COUNT sCount = MoveObject(I_sSession, I_sConnection,
                                    [&](char *cpBlock) { return I_sSession.Receive(cpBlock); });
    if (sCount.strDigest != I_strDigest)
        throw base::FAILURE("differs: SHA-256 is " + sCount.strDigest + " and should be " +
                            I_strDigest);
    return sCount.uBytes;
}

// One session with a transaction for each object: the library begins afresh with each, also after
// one that failed.
void Verify(base::CONNECTION &X_sConnection, const OPTIONS &I_sOptions)
{
    const library::OBJECT &sObject = I_sOptions.sObject;
    if (I_sOptions.strManifest.empty())
        throw base::USAGE_ERROR("verify needs --manifest: the file that store keeps with that "
                                "option");
    if (sObject.strName.empty() && !I_sOptions.bAll)
        throw base::USAGE_ERROR("verify needs NAME or --all");
    if (I_sOptions.bAll && (sObject.uCopyId != 0 || !sObject.strSpace.empty()))
        throw base::USAGE_ERROR("--all takes spaces and copies from the manifest");
    CheckSession(X_sConnection, I_sOptions);
    const std::vector<MANIFEST_ENTRY> vecEntries = ChosenEntries(X_sConnection, I_sOptions);
    library::CSession sSession(X_sConnection);
    base::JSON sObjects = base::JSON::array();
    size_t uBad = 0;
    for (const MANIFEST_ENTRY &sEntry : vecEntries)
    {
        if (!sObjects.empty()) sSession.Next();
        SayStatus(base::Text("verify ", base::Quoted(sEntry.strName), ", object ",
                             sObjects.size() + 1, " of ", vecEntries.size()));
        sObjects.push_back(VerifyEntry(sSession, X_sConnection, I_sOptions, sEntry));
        if (!I_sOptions.bJson) PrintLine(sEntry.strName, sObjects.back());
        if (!sObjects.back()["ok"]) uBad++;
    }
    sSession.Close();
    if (I_sOptions.bJson)
        std::cout << base::Dump({{"schema", SCHEMA}, {"failed", uBad}, {"objects", sObjects}})
                  << '\n';
    const size_t uCount = vecEntries.size();
    if (uBad > 0)
        throw base::FAILURE(base::Text(uBad, " of ", uCount, " objects failed to verify"));
    if (I_sOptions.bJson) return;
    std::cerr << "xbsactl: verified " << uCount << (uCount == 1 ? " object\n" : " objects\n");
}
} // namespace transfer
