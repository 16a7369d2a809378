#include "trace/parts.h"

#include <algorithm>

namespace trace
{
namespace
{
// What follows the words, to the end or to one of the characters that end it.
std::string_view After(std::string_view I_svText, size_t I_uWords, size_t I_uLength)
{
    if (I_uWords == std::string_view::npos) return "";
    I_svText.remove_prefix(I_uWords + I_uLength);
    I_svText.remove_prefix(std::min(I_svText.find_first_not_of(" '"), I_svText.size()));
    return I_svText;
}

bool EndsWith(std::string_view I_svText, std::string_view I_svEnd)
{
    return I_svText.size() >= I_svEnd.size() &&
           I_svText.substr(I_svText.size() - I_svEnd.size()) == I_svEnd;
}
} // namespace

std::string CopyName(std::string_view I_svSaveset)
{
    constexpr size_t LONGEST_NUMBER = 20;
    const size_t uDigits =
        std::min({I_svSaveset.find_first_not_of("0123456789"), I_svSaveset.size(), LONGEST_NUMBER});
    return uDigits == 0 ? "" : "copy id " + std::string(I_svSaveset.substr(0, uDigits));
}

COMMAND ParseCommand(std::string_view I_svLine)
{
    COMMAND sCommand;
    if (EndsWith(I_svLine, "]")) I_svLine.remove_suffix(1);
    size_t uTask = std::string_view::npos;
    for (const char *cpTask : {" -b ", " -r ", " -q "})
        uTask = std::min(uTask, I_svLine.find(cpTask));
    const std::string_view svTask = After(I_svLine, uTask, 4);
    const size_t uColon = std::min(svTask.find(':'), svTask.size());
    const bool bQuery = uTask != std::string_view::npos && I_svLine[uTask + 2] == 'q';
    sCommand.strVerb = bQuery ? "query" : Clean(svTask.substr(0, svTask.find_first_of(": ")));
    if (sCommand.strVerb.empty()) sCommand.strVerb = "run without a task";
    sCommand.strJob = Clean(svTask.substr(uColon, svTask.find_first_of(" '", uColon) - uColon));
    sCommand.strObject = Clean(After(I_svLine, I_svLine.rfind(" -- "), 4));
    sCommand.strCopy = CopyName(After(I_svLine, I_svLine.find(" -s "), 4));
    sCommand.bBackup = sCommand.strVerb == "openjob" && I_svLine[uTask + 2] == 'b';
    sCommand.bGood = EndsWith(I_svLine, " -i 0");
    return sCommand;
}

std::string COMMAND::Object() const
{
    if (strVerb == "query") return "query of " + strObject;
    if (strVerb == "openjob") return (bBackup ? "backup of " : "restore of ") + strObject;
    return "";
}
} // namespace trace
