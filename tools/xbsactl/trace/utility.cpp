// The runs of the COM utility.
#include "trace/takes.h"

#include <algorithm>

#include "trace/marks.h"
#include "trace/steps.h"
#include "trace/text.h"

namespace
{
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

    const std::string strObject = text_Clean(ObjectOf(I_svRest));
    if (svVerb == "query")
        marks_Add(X_sSession, I_sLine, STEP_KIND::OBJECT, "query of " + strObject);
    if (svVerb == "openjob")
    {
        const char *cpWhat = svTask[1] == 'b' ? "backup of " : "restore of ";
        marks_Add(X_sSession, I_sLine, STEP_KIND::OBJECT,
                  cpWhat + strObject + ", copy id " + text_Clean(CopyOf(I_svRest)));
    }
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
    if (lines_StartsWith(I_svRest, "reply=ERROR")) steps_NoteError(X_sSession, I_sLine, true);
}
