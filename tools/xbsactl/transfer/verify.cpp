#include "transfer/verify.h"

#include <cstdio>
#include <iostream>
#include <vector>

#include "base/errors.h"
#include "base/files.h"
#include "transfer/manifest.h"
#include "transfer/meter.h"
#include "transfer/status.h"

namespace
{
// Those of one name, or all; never none.
std::vector<MANIFEST_ENTRY> ChosenEntries(const SETTINGS &I_sSettings)
{
    const std::string strName = manifest_Name(I_sSettings);
    std::vector<MANIFEST_ENTRY> vecChosen;
    for (const MANIFEST_ENTRY &sEntry : manifest_Read(I_sSettings.strManifest))
        if (I_sSettings.bAll || sEntry.strName == strName) vecChosen.push_back(sEntry);
    if (vecChosen.empty())
        throw FAILURE("manifest " + files_Quoted(I_sSettings.strManifest) + " has no entry" +
                      (I_sSettings.bAll ? "" : " " + files_Quoted(strName)));
    return vecChosen;
}

// The settings with which the object of an entry would be restored: without --copy-id the copy
// that the digest belongs to.
SETTINGS SettingsOf(const SETTINGS &I_sSettings, const MANIFEST_ENTRY &I_sEntry)
{
    SETTINGS sSettings = I_sSettings;
    sSettings.strName = I_sEntry.strName;
    if (I_sSettings.bInformix)
    {
        const size_t uAt = I_sEntry.strName.find('@');
        if (uAt == std::string::npos) throw FAILURE("the entry is not SPACE@NAME");
        sSettings.strSpace = I_sEntry.strName.substr(0, uAt);
        sSettings.strName = I_sEntry.strName.substr(uAt + 1);
        if (sSettings.uCopyId == 0) sSettings.uCopyId = I_sEntry.uCopyId;
    }
    settings_CheckObject(sSettings);
    return sSettings;
}

// What follows the name in the line of an object that is right.
std::string CompareEntry(CSession &I_sSession, const SETTINGS &I_sSettings,
                         const MANIFEST_ENTRY &I_sEntry)
{
    const SETTINGS sSettings = SettingsOf(I_sSettings, I_sEntry);
    BSA_ObjectDescriptor sObject = session_Object(sSettings);
    if (sSettings.bInformix && sSettings.uCopyId == 0) I_sSession.TakeNewest(sSettings, sObject);
    const std::string strCopy =
        sSettings.bInformix ? "copy id " + std::to_string(sObject.copyId.right) + ", " : "";
    try
    {
        return strCopy +
               std::to_string(verify_Compare(I_sSession, sSettings, sObject, I_sEntry.strDigest)) +
               " bytes";
    } catch (const FAILURE &sFailure)
    {
        throw FAILURE(strCopy + sFailure.what());
    }
}

// Prints the object's line, at once: a drill over many objects takes its time.
bool VerifyEntry(CSession &I_sSession, const SETTINGS &I_sSettings, const MANIFEST_ENTRY &I_sEntry)
{
    std::string strText;
    bool bGood = false;
    try
    {
        strText = CompareEntry(I_sSession, I_sSettings, I_sEntry);
        bGood = true;
    } catch (const std::runtime_error &sFailure)
    {
        strText = sFailure.what();
    }
    std::cout << (bGood ? "ok    " : "FAIL  ") << Printable(I_sEntry.strName + ": " + strText)
              << std::endl;
    return bGood;
}
} // namespace

uint64_t verify_Compare(CSession &I_sSession, const SETTINGS &I_sSettings,
                        BSA_ObjectDescriptor &I_sObject, const std::string &I_strDigest)
{
    CMeter sMeter(0, meter_WantsBar(I_sSettings));
    std::vector<char> vecBlock(BLOCK_SIZE);
    size_t uLength = BLOCK_SIZE;
    I_sSession.Get(I_sObject);
    while (uLength == BLOCK_SIZE)
    {
        uLength = I_sSession.Receive(vecBlock.data());
        sMeter.Add(vecBlock.data(), uLength);
    }
    I_sSession.EndData();
    if (sMeter.Digest() != I_strDigest)
        throw FAILURE("differs: SHA-256 is " + sMeter.Digest() + " and should be " + I_strDigest);
    return sMeter.Bytes();
}

// One session with a transaction for each object: the library begins afresh with each, also after
// one that failed.
int verify_Run(const SETTINGS &I_sSettings)
{
    const std::vector<MANIFEST_ENTRY> vecEntries = ChosenEntries(I_sSettings);
    CSession sSession(I_sSettings);
    size_t uDone = 0;
    size_t uBad = 0;
    for (const MANIFEST_ENTRY &sEntry : vecEntries)
    {
        if (uDone > 0) sSession.Next();
        uDone++;
        status_Say("verify " + files_Quoted(sEntry.strName) + ", object " + std::to_string(uDone) +
                   " of " + std::to_string(vecEntries.size()));
        if (!VerifyEntry(sSession, I_sSettings, sEntry)) uBad++;
    }
    sSession.Close();
    if (uBad > 0)
        throw FAILURE(std::to_string(uBad) + " of " + std::to_string(uDone) +
                      " objects failed to verify");
    fprintf(stderr, "xbsactl: verified %zu object%s\n", uDone, uDone == 1 ? "" : "s");
    return EXIT_DONE;
}
