#include "trace/take.h"

#include <algorithm>

namespace trace
{
namespace
{
constexpr uint64_t NO_MATCH = 17; // codes that are answers, not failures
constexpr uint64_t NO_MORE_DATA = 18;

STEP NewStep(KIND I_eKind, const std::string &I_strText, int64_t I_iTime)
{
    STEP sStep;
    sStep.eKind = I_eKind;
    sStep.strText = I_strText;
    sStep.iStart = sStep.iEnd = I_iTime;
    return sStep;
}

// What the utility's command line asks for.
struct COMMAND
{
    std::string_view svTask; // "-b", "-r" or "-q" and all that follows
    std::string strVerb;     // "openjob", ...
    std::string strJob;      // ":JOB" after the verb
    std::string strObject;   // at the end
    std::string strCopy;     // "copy id 77", of the saveset after "-s"
};

std::string_view After(std::string_view I_svText, size_t I_uPlace, size_t I_uLength)
{
    return I_uPlace == std::string_view::npos ? "" : I_svText.substr(I_uPlace + I_uLength);
}

// "copy id 77" of the saveset "77@..."; empty for a text without a number.
std::string CopyName(std::string_view I_svSaveset)
{
    constexpr size_t LONGEST_NUMBER = 20;
    const size_t uDigits =
        std::min({I_svSaveset.find_first_not_of("0123456789"), I_svSaveset.size(), LONGEST_NUMBER});
    return uDigits == 0 ? "" : "copy id " + std::string(I_svSaveset.substr(0, uDigits));
}

COMMAND ParseCommand(std::string_view I_svLine)
{
    constexpr std::string_view BLANKS = " '";
    COMMAND sCommand;
    size_t uTask = I_svLine.size();
    for (const char *cpTask : {" -b ", " -r ", " -q "})
        uTask = std::min(uTask, I_svLine.find(cpTask));
    if (uTask < I_svLine.size()) sCommand.svTask = I_svLine.substr(uTask + 1);

    std::string_view svVerb = StartsWith(sCommand.svTask, "-q") ? "query" : sCommand.svTask;
    if (StartsWith(svVerb, "-")) svVerb.remove_prefix(3);
    svVerb.remove_prefix(std::min(svVerb.find_first_not_of(BLANKS), svVerb.size()));
    sCommand.strVerb = Clean(svVerb.substr(0, svVerb.find_first_of(": ")));
    if (sCommand.strVerb.empty()) sCommand.strVerb = "run without a task";

    const size_t uColon = std::min(sCommand.svTask.find(':'), sCommand.svTask.size());
    const size_t uJobEnd = sCommand.svTask.find_first_of(BLANKS, uColon);
    sCommand.strJob = Clean(sCommand.svTask.substr(uColon, uJobEnd - uColon));
    sCommand.strObject = Clean(After(I_svLine, I_svLine.rfind(" -- "), 4));
    sCommand.strObject.erase(0, sCommand.strObject.find_first_not_of(' '));
    sCommand.strCopy = CopyName(After(I_svLine, I_svLine.find(" -s "), 4));
    return sCommand;
}

bool EndsWith(std::string_view I_svText, std::string_view I_svEnd)
{
    return I_svText.size() >= I_svEnd.size() &&
           I_svText.substr(I_svText.size() - I_svEnd.size()) == I_svEnd;
}

void NotePause(STEP &X_sData, int64_t I_iNow)
{
    if (I_iNow - X_sData.iEnd > X_sData.iPause)
    {
        X_sData.iPause = I_iNow - X_sData.iEnd;
        X_sData.iPauseStart = X_sData.iEnd;
    }
    X_sData.iEnd = I_iNow;
}
} // namespace

void TAKE::Begin(KIND I_eKind, const std::string &I_strText) const
{
    if (sProgress.sPending) sSession.AddStep(*sProgress.sPending);
    sProgress.sPending = NewStep(I_eKind, I_strText, sLine.iTime);
}

void TAKE::End(const std::string &I_strResult, bool I_bFailed) const
{
    if (!sProgress.sPending) return;
    STEP &sStep = *sProgress.sPending;
    sStep.iEnd = sLine.iTime;
    sStep.bEnded = true;
    sStep.bFailed = I_bFailed;
    sStep.strResult = I_strResult;
    sSession.AddStep(sStep);
    sProgress.sPending.reset();
}

void TAKE::Add(KIND I_eKind, const std::string &I_strText, bool I_bFailed) const
{
    STEP sStep = NewStep(I_eKind, I_strText, sLine.iTime);
    sStep.bEnded = true;
    sStep.bFailed = I_bFailed;
    if (I_bFailed) sSession.bFailed = true;
    sSession.AddStep(sStep);
}

void TAKE::BeginData(const char *cpVerb) const
{
    sProgress.sData = NewStep(KIND::DATA, cpVerb, sLine.iTime);
}

void TAKE::EndData() const
{
    if (!sProgress.sData) return;
    sProgress.sData->iEnd = sLine.iTime;
    sProgress.sData->bEnded = true;
    sSession.AddStep(*sProgress.sData);
    sProgress.sData.reset();
}

void TAKE::GiveUpData() const
{
    if (!sProgress.sData) return;
    EndData();
    Add(KIND::CALL, "the object was given up: no BSAEndData", true);
}

void TAKE::Return() const
{
    sProgress.uCall = IN_NONE;
    std::string_view svCode = svRest;
    const uint64_t uCode = TakeNumber(svCode);
    if (uCode == 0 || uCode == NO_MATCH || uCode == NO_MORE_DATA) return;
    NoteError(true);
    Add(KIND::CALL, Clean(sLine.svText), true);
}

void TAKE::NoteError(bool I_bWeak) const
{
    LOGGED_ERROR &sError = sSession.sError;
    if (sError.sPlace.uLine != 0 && (I_bWeak || !sError.bWeak)) return;
    sError = {
        {sLine.uNumber, sLine.iTime, std::string(sLine.svStamp)}, Clean(sLine.svText), I_bWeak};
}

void TAKE::SetSign() const
{
    const std::string_view svFunction = sLine.svText.substr(0, sLine.svText.find_first_of(":( "));
    sProgress.strSign = "line " + std::to_string(sLine.uNumber) + ", of " +
                        std::string(svFunction) + ", cannot come here";
}

bool IsRefusal(std::string_view I_svReply)
{
    return StartsWith(I_svReply, "4") || StartsWith(I_svReply, "5");
}

// What the client asks for is a restore's copy; that of a backup is the server's to name. A job
// that ends well says for certain which copy it made, whoever else writes to the log.
void TakeCommand(const TAKE &I_sTake)
{
    std::string_view svLine = I_sTake.svRest;
    if (EndsWith(svLine, "]")) svLine.remove_suffix(1);
    const COMMAND sCommand = ParseCommand(svLine);
    const bool bBackup = StartsWith(sCommand.svTask, "-b");
    STEP sObject = NewStep(KIND::OBJECT, "", I_sTake.sLine.iTime);
    sObject.bEnded = true;
    if (sCommand.strVerb == "query") sObject.strText = "query of " + sCommand.strObject;
    if (sCommand.strVerb == "openjob")
    {
        sObject.strText = (bBackup ? "backup of " : "restore of ") + sCommand.strObject;
        (bBackup ? sObject.strJob : sObject.strResult) =
            bBackup ? sCommand.strJob : sCommand.strCopy;
    }
    if (!sObject.strText.empty()) I_sTake.sSession.AddStep(sObject);
    if (sCommand.strVerb == "closejob" && !sCommand.strCopy.empty() && EndsWith(svLine, " -i 0"))
        I_sTake.sSession.sSteps.NameCopy(sCommand.strJob, sCommand.strCopy);
    I_sTake.sSession.bInformix = true;
    I_sTake.Begin(KIND::UTILITY, sCommand.strVerb);
}

void TakeAnswer(const TAKE &I_sTake)
{
    constexpr std::string_view SAVESET = "savesetname=";
    if (I_sTake.RestIs("reply=ERROR")) I_sTake.NoteError(true);
    STEP *spStep = I_sTake.sSession.sSteps.Last();
    const bool bOwn = !I_sTake.sSession.IsMixed() && spStep != nullptr && !spStep->strJob.empty();
    if (bOwn && I_sTake.RestIs(SAVESET))
        spStep->strResult = CopyName(I_sTake.svRest.substr(SAVESET.size()));
}

// A process writes name and path one after the other: only then they are one object's.
void TakePath(const TAKE &I_sTake, const char *cpWhat)
{
    std::optional<std::string> &strName = I_sTake.sProgress.strName;
    if (!strName && (I_sTake.sProgress.uCall & IN_UNKNOWN) == 0) I_sTake.SetSign();
    const bool bPair = strName && !I_sTake.sSession.IsMixed();
    I_sTake.Add(KIND::OBJECT, cpWhat + (bPair ? *strName : "an object") + " in " + I_sTake.Rest());
    strName.reset();
}

// A reply of several lines ends with the one that has no "-" after its code.
void TakeReply(const TAKE &I_sTake)
{
    if (I_sTake.svRest.size() > 3 && I_sTake.svRest[3] == '-') return;
    I_sTake.End(I_sTake.Rest(), IsRefusal(I_sTake.svRest));
}

void TakeTransferReply(const TAKE &I_sTake)
{
    TakeReply(I_sTake);
    if (I_sTake.RestIs("1")) I_sTake.Begin(KIND::CONTROL, "the server's data connection");
}

// The reply to the data comes first, that to QUIT second.
void TakeClosingReply(const TAKE &I_sTake)
{
    const bool bData = I_sTake.sProgress.bTransfer;
    const std::string strReply = I_sTake.Rest();
    I_sTake.End(strReply.empty() ? "no reply" : strReply,
                bData ? !I_sTake.RestIs("226") : IsRefusal(I_sTake.svRest));
    I_sTake.sProgress.bTransfer = false;
    if (bData) I_sTake.Begin(KIND::CONTROL, "QUIT");
}

void TakeOpened(const TAKE &I_sTake, const char *cpVerb)
{
    const bool bOpen = I_sTake.RestIs("0");
    I_sTake.sProgress.bTransfer = bOpen;
    I_sTake.End(bOpen ? "open" : "failed", !bOpen);
    I_sTake.Return();
    if (bOpen) I_sTake.BeginData(cpVerb);
}

// "65535, total: 131070": the process counts, and another process's line breaks the sum.
void TakeBlock(const TAKE &I_sTake, const char *cpVerb)
{
    constexpr std::string_view TOTAL = ", total: ";
    PROGRESS &sProgress = I_sTake.sProgress;
    std::string_view svRest = I_sTake.svRest;
    const uint64_t uBytes = TakeNumber(svRest);
    if (!StartsWith(svRest, TOTAL)) return;
    svRest.remove_prefix(TOTAL.size());
    const uint64_t uTotal = TakeNumber(svRest);
    if (sProgress.uTotal && uTotal != *sProgress.uTotal + uBytes)
        sProgress.strSign = "the total of line " + std::to_string(I_sTake.sLine.uNumber) +
                            " does not follow from the one before";
    sProgress.uTotal = uTotal;
    I_sTake.sSession.uBytes += uBytes;
    if (!sProgress.sData && (sProgress.uCall & IN_UNKNOWN) == 0) return;
    if (!sProgress.sData) I_sTake.BeginData(cpVerb); // the log began in the middle
    sProgress.bTransfer = true;
    sProgress.sData->uBytes += uBytes;
    sProgress.sData->uBlocks += uBytes > 0 ? 1 : 0;
    NotePause(*sProgress.sData, I_sTake.sLine.iTime);
}
} // namespace trace
