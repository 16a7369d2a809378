#include <sys/stat.h>

#include "base/base.h"
#include "base/json.h"

namespace base
{
namespace
{
constexpr const char *OWN_MARK = "# HELP xbsactl_"; // how each file of ours begins
} // namespace

// The format's escapes are \\ and \", which is what JSON makes of a text without control
// characters.
std::string LabelValue(const std::string &I_strText)
{
    return JSON(Visible(I_strText)).dump(-1, ' ', false, JSON::error_handler_t::replace);
}

std::string Metric(const char *cpName, const char *cpHelp, const std::string &I_strSamples)
{
    return Text("# HELP ", cpName, ' ', cpHelp, "\n# TYPE ", cpName, " gauge\n", I_strSamples);
}

std::string VersionMetric()
{
    return Metric("xbsactl_build_info", "The version that wrote this file.",
                  "xbsactl_build_info{version=\"" XBSACTL_VERSION "\"} 1\n");
}

std::string EarlierMetrics(const std::string &I_strFile)
{
    std::string strText = ReadText(FindTarget(I_strFile)).value_or("");
    if (!strText.empty() && !strText.starts_with(OWN_MARK))
        throw FileFailure("status file ", Quoted(I_strFile),
                          " already exists and is not a status file");
    return strText;
}
} // namespace base
