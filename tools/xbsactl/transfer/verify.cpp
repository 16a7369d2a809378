#include <cstdio>
#include <iostream>

#include "report/report.h"
#include "transfer/parts.h"

namespace transfer
{
namespace
{
// The entries of one name, or all. Throws when there are none.
std::vector<MANIFEST_ENTRY> ChosenEntries(const base::CONNECTION &I_sConnection,
                                          const OPTIONS &I_sOptions)
{
    const std::string strName = ManifestName(I_sConnection, I_sOptions.sObject);
    if (!I_sOptions.vecJournals.empty()) return JournalEntries(I_sConnection, I_sOptions);
    std::vector<MANIFEST_ENTRY> vecChosen = ReadManifest(I_sOptions.strManifest);
    if (!I_sOptions.bAll)
        std::erase_if(vecChosen, [&](const auto &sEntry) { return sEntry.strName != strName; });
    if (vecChosen.empty())
        throw base::FAILURE("manifest " + base::Quoted(I_sOptions.strManifest) + " has no entry" +
                                (I_sOptions.bAll ? "" : " " + base::Quoted(strName)),
                            base::EXIT_NO_MATCH);
    return vecChosen;
}

// An entry's object as a restore would name it: without --copy-id the copy that the digest belongs
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

// An entry of a journal contains the object's directory.
BSA_ObjectDescriptor Find(library::CSession &I_sSession, base::CONNECTION I_sConnection,
                          const OPTIONS &I_sOptions, const MANIFEST_ENTRY &I_sEntry)
{
    const library::OBJECT sObject = ObjectOf(I_sConnection, I_sOptions, I_sEntry);
    if (I_sEntry.strFolder.empty()) return I_sSession.Find(sObject);
    base::CheckName("the directory", I_sEntry.strFolder);
    I_sConnection.strPath = I_sEntry.strFolder;
    return library::Descriptor(I_sConnection, sObject);
}

// The result for one object.
base::JSON VerifyEntry(library::CSession &I_sSession, const base::CONNECTION &I_sConnection,
                       const OPTIONS &I_sOptions, const MANIFEST_ENTRY &I_sEntry)
{
    base::JSON sVerdict = {{"ok", false}};
    try
    {
        BSA_ObjectDescriptor sObject = Find(I_sSession, I_sConnection, I_sOptions, I_sEntry);
        if (I_sConnection.bInformix) sVerdict["copy_id"] = sObject.copyId.right;
        sVerdict["bytes"] = Compare(I_sSession, I_sConnection, sObject, I_sEntry);
        sVerdict["ok"] = true;
    } catch (const base::FAILURE &sFailure)
    {
        sVerdict["error"] = base::Printable(sFailure.what());
    }
    return sVerdict;
}

// A name from a journal includes the directory.
std::string ShownName(const MANIFEST_ENTRY &I_sEntry)
{
    report::ENTRY sNamed;
    sNamed.strSpace = I_sEntry.strName;
    sNamed.strPath = I_sEntry.strFolder;
    return report::Name(sNamed);
}

// Printed at once: verifying many objects takes long.
void PrintLine(const base::JSON &I_sVerdict)
{
    const std::string strName = I_sVerdict["name"];
    const bool bGood = I_sVerdict["ok"];
    const std::string strCopy =
        I_sVerdict.contains("copy_id") ? base::Text("copy id ", I_sVerdict["copy_id"], ", ") : "";
    const std::string strText =
        bGood ? base::Text(I_sVerdict["bytes"], " bytes") : I_sVerdict["error"].get<std::string>();
    std::cout << (bGood ? "ok    " : "FAIL  ")
              << base::Printable(strName + ": " + strCopy + strText) << std::endl;
}
struct VERDICTS
{
    std::vector<base::JSON> vecObjects;
    size_t uDone = 0;
    size_t uBad = 0;

    void Count(bool I_bGood)
    {
        uDone++;
        if (!I_bGood) uBad++;
        CountVerified(uDone - uBad, uBad);
    }
};

void Finish(const VERDICTS &I_sVerdicts, bool I_bJson)
{
    const auto &[vecObjects, uDone, uBad] = I_sVerdicts;
    if (I_bJson)
        std::cout << base::Dump({{"schema", SCHEMA}, {"failed", uBad}, {"objects", vecObjects}})
                  << '\n';
    if (uBad > 0) throw base::FAILURE(base::Text(uBad, " of ", uDone, " objects failed to verify"));
    if (I_bJson) return;
    std::cerr << "xbsactl: verified " << uDone << (uDone == 1 ? " object\n" : " objects\n");
}

void CheckVerify(const OPTIONS &I_sOptions)
{
    const library::OBJECT &sObject = I_sOptions.sObject;
    const bool bJournal = !I_sOptions.vecJournals.empty();
    if (I_sOptions.strManifest.empty() && !bJournal)
        throw base::USAGE_ERROR("verify needs --journal, or --manifest with the file that store "
                                "wrote");
    if (!bJournal && (I_sOptions.bNewest || !I_sOptions.strSample.empty()))
        throw base::USAGE_ERROR("--newest and --sample need --journal");
    if (sObject.strName.empty() && !I_sOptions.bAll && !bJournal)
        throw base::USAGE_ERROR("verify needs NAME or --all");
    if (I_sOptions.bAll && (sObject.uCopyId != 0 || !sObject.strSpace.empty()))
        throw base::USAGE_ERROR("--all takes spaces and copies from the manifest");
}
} // namespace

uint64_t Compare(library::CSession &I_sSession, const base::CONNECTION &I_sConnection,
                 BSA_ObjectDescriptor &I_sObject, const MANIFEST_ENTRY &I_sEntry)
{
    I_sSession.Get(I_sObject);
    const COUNT sCount = MoveObject(I_sSession, I_sConnection,
                                    [&](char *cpBlock) { return I_sSession.Receive(cpBlock); });
    if (sCount.uBytes != I_sEntry.uBytes.value_or(sCount.uBytes))
        throw base::FAILURE(base::Text("differs: has ", sCount.uBytes, " bytes and should have ",
                                       *I_sEntry.uBytes));
    const std::string &strDigest = I_sEntry.uBytes ? sCount.strXxh128 : sCount.strDigest;
    if (strDigest != I_sEntry.strDigest)
        throw base::FAILURE(base::Text("differs: ", I_sEntry.uBytes ? "XXH3-128" : "SHA-256",
                                       " is ", strDigest, " and should be ", I_sEntry.strDigest));
    return sCount.uBytes;
}

void Verify(base::CONNECTION &X_sConnection, const OPTIONS &I_sOptions)
{
    CheckVerify(I_sOptions);
    CheckSession(X_sConnection, I_sOptions);
    const std::vector<MANIFEST_ENTRY> vecEntries = ChosenEntries(X_sConnection, I_sOptions);
    const size_t uCount = vecEntries.size();
    VERDICTS sVerdicts{std::vector<base::JSON>(uCount)};
    SayStatus(base::Text("verify ", uCount, " objects"));
    const auto fpWork = [&](library::CSession &X_sSession, size_t uObject) {
        SayStatus(base::Text("verify ", base::Quoted(vecEntries[uObject].strName), ", object ",
                             sVerdicts.uDone + 1, " of ", uCount));
        return VerifyEntry(X_sSession, X_sConnection, I_sOptions, vecEntries[uObject]);
    };
    RunJobs(X_sConnection, I_sOptions.uJobs, uCount, fpWork,
            [&](size_t uObject, const base::JSON &sVerdict) {
                base::JSON &sKept = sVerdicts.vecObjects[uObject];
                sKept = {{"name", ShownName(vecEntries[uObject])}};
                sKept.update(sVerdict);
                if (!I_sOptions.bJson) PrintLine(sKept);
                sVerdicts.Count(sKept["ok"]);
            });
    Finish(sVerdicts, I_sOptions.bJson);
}
} // namespace transfer
