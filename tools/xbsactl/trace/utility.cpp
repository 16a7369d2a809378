// The runs of the COM utility.
#include "trace/takes.h"

#include <algorithm>

#include "trace/marks.h"
#include "trace/steps.h"
#include "trace/text.h"

namespace
{
constexpr size_t LONGEST_NUMBER = 20; // digits of a copy id

// The object at the end of the utility's command line.
std::string_view ObjectOf(std::string_view I_svCommand)
{
    const size_t uPlace = I_svCommand.rfind(" -- ");
    if (uPlace == std::string_view::npos) return "";
    I_svCommand.remove_prefix(uPlace + 4);
    while (!I_svCommand.empty() && I_svCommand[0] == ' ') I_svCommand.remove_prefix(1);
    return I_svCommand;
}

// The saveset behind "-s".
std::string_view CopyOf(std::string_view I_svCommand)
{
    const size_t uPlace = I_svCommand.find(" -s ");
    if (uPlace == std::string_view::npos) return "";
    I_svCommand.remove_prefix(uPlace + 4);
    return I_svCommand.substr(0, I_svCommand.find(' '));
}

// "-b", "-r" or "-q" behind the path of the utility, and what follows.
std::string_view TaskOf(std::string_view I_svCommand)
{
    size_t uPlace = I_svCommand.size();
    for (const char *cpTask : {" -b ", " -r ", " -q "})
        uPlace = std::min(uPlace, I_svCommand.find(cpTask));
    return uPlace < I_svCommand.size() ? I_svCommand.substr(uPlace + 1) : "";
}

// "copy id 77" of the saveset "77@..."; empty for a text without a number.
std::string CopyName(std::string_view I_svSaveset)
{
    const size_t uDigits = std::min(I_svSaveset.find_first_not_of("0123456789"),
                                    std::min<size_t>(I_svSaveset.size(), LONGEST_NUMBER));
    return uDigits == 0 ? "" : "copy id " + std::string(I_svSaveset.substr(0, uDigits));
}

// The job behind its verb, in ":JOB" of the command line.
std::string JobOf(std::string_view I_svTask)
{
    const size_t uColon = std::min(I_svTask.find(':'), I_svTask.size());
    return text_Clean(I_svTask.substr(uColon, I_svTask.find_first_of(" '", uColon) - uColon));
}

STEP *LastStep(TRACE_SESSION &X_sSession)
{
    if (!X_sSession.deqSteps.empty()) return &X_sSession.deqSteps.back();
    return X_sSession.vecSteps.empty() ? nullptr : &X_sSession.vecSteps.back();
}

// What the client asks for is a restore's copy; that of a backup is the server's to name.
void AddObject(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view I_svCommand)
{
    const std::string_view svTask = TaskOf(I_svCommand);
    const bool bBackup = svTask[1] == 'b';
    marks_Add(X_sSession, I_sLine, STEP_KIND::OBJECT,
              (bBackup ? "backup of " : "restore of ") + text_Clean(ObjectOf(I_svCommand)));
    STEP *spStep = LastStep(X_sSession);
    if (bBackup) spStep->strJob = JobOf(svTask);
    else spStep->strResult = CopyName(CopyOf(I_svCommand));
}

// A job that ends well says for certain which copy it made, whoever else writes to the log.
void NameCopy(TRACE_SESSION &X_sSession, std::string_view I_svCommand)
{
    const std::string_view svGood = " -i 0";
    const std::string strJob = JobOf(TaskOf(I_svCommand));
    const std::string strCopy = CopyName(CopyOf(I_svCommand));
    const size_t uEnd = I_svCommand.rfind(svGood);
    if (strCopy.empty() || uEnd == std::string_view::npos ||
        uEnd + svGood.size() != I_svCommand.size())
        return;
    const auto fpName = [&](STEP &X_sStep) {
        if (X_sStep.strJob.empty() || X_sStep.strJob != strJob) return;
        X_sStep.strResult = strCopy;
        X_sStep.strJob.clear();
    };
    std::for_each(X_sSession.vecSteps.begin(), X_sSession.vecSteps.end(), fpName);
    std::for_each(X_sSession.deqSteps.begin(), X_sSession.deqSteps.end(), fpName);
}
} // namespace

void take_Command(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view I_svRest)
{
    if (!I_svRest.empty() && I_svRest.back() == ']') I_svRest.remove_suffix(1);
    const std::string_view svTask = TaskOf(I_svRest);
    std::string_view svVerb =
        svTask.substr(0, 2) == "-q" ? "query" : svTask.substr(std::min<size_t>(3, svTask.size()));
    while (!svVerb.empty() && (svVerb[0] == ' ' || svVerb[0] == '\'')) svVerb.remove_prefix(1);
    svVerb = svVerb.substr(0, svVerb.find_first_of(": "));
    if (svVerb.empty()) svVerb = "run without a task";

    if (svVerb == "query")
        marks_Add(X_sSession, I_sLine, STEP_KIND::OBJECT,
                  "query of " + text_Clean(ObjectOf(I_svRest)));
    if (svVerb == "openjob") AddObject(X_sSession, I_sLine, I_svRest);
    if (svVerb == "closejob") NameCopy(X_sSession, I_svRest);
    X_sSession.bInformix = true;
    marks_Begin(X_sSession, I_sLine, STEP_KIND::UTILITY, text_Clean(svVerb));
}

void take_Parsed(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view I_svRest)
{
    const bool bFailed = !lines_StartsWith(I_svRest, "0");
    if (bFailed) steps_NoteError(X_sSession, I_sLine, true);
    marks_End(X_sSession, I_sLine, bFailed ? "refused" : "answered", bFailed);
}

void take_Unanswered(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view /*rest*/)
{
    steps_NoteError(X_sSession, I_sLine, false);
    marks_End(X_sSession, I_sLine, "no answer", true);
}

void take_UtilityError(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine,
                       std::string_view /*rest*/)
{
    steps_NoteError(X_sSession, I_sLine, false);
}

void take_Parsing(TRACE_SESSION &X_sSession, const LOG_LINE &I_sLine, std::string_view I_svRest)
{
    const std::string_view svSaveset = "savesetname=";
    if (lines_StartsWith(I_svRest, "reply=ERROR")) steps_NoteError(X_sSession, I_sLine, true);
    STEP *spStep = LastStep(X_sSession);
    const bool bOwn = !session_IsMixed(X_sSession) && spStep != nullptr && !spStep->strJob.empty();
    if (bOwn && lines_StartsWith(I_svRest, svSaveset))
        spStep->strResult = CopyName(I_svRest.substr(svSaveset.size()));
}
