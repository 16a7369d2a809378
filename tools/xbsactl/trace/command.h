// The command line of the COM utility, as the trace shows it.
#ifndef XBSACTL_TRACE_COMMAND_H
#define XBSACTL_TRACE_COMMAND_H

#include <string>
#include <string_view>

namespace trace
{
struct COMMAND
{
    std::string strVerb;   // "openjob", ...
    std::string strJob;    // ":JOB" after the verb
    std::string strObject; // at the end
    std::string strCopy;   // of the saveset after "-s"
    bool bBackup = false;  // it opens a backup's job
    bool bGood = false;    // the job ends well

    std::string Object() const; // "backup of OBJECT"; empty when the command begins none
};

COMMAND ParseCommand(std::string_view I_svLine);

// "copy id 77" of the saveset "77@..."; empty for a text without a number.
std::string CopyName(std::string_view I_svSaveset);
} // namespace trace

#endif
