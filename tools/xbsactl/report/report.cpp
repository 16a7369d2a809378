#include "report/report.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>
#include <iomanip>
#include <iostream>
#include <map>
#include <optional>
#include <tuple>

#include "base/base.h"
#include "base/json.h"
#include "trace/trace.h"

namespace report
{
namespace
{
constexpr int REPORT_SCHEMA = 1; // of the JSON

enum class STATUS
{
    OK,
    SMALL,
    OLD,
    FAILED // last, or never stored
};
constexpr std::array<const char *, 4> WORDS = {"ok", "small", "old", "failed"}; // by STATUS

struct OBJECT
{
    std::string strSpace;
    std::string strPath{};
    std::optional<ENTRY> sGood{}; // the newest of each
    std::optional<ENTRY> sFailure{};
    bool bFailed = false; // after the last good copy
    STATUS eStatus = STATUS::FAILED;
    std::vector<std::string> vecMessages{}; // of the database

    const ENTRY *Newest() const // null when there is none
    {
        if (bFailed) return &*sFailure;
        return sGood ? &*sGood : nullptr;
    }

    std::string ShownName() const
    {
        return base::Printable(Newest() != nullptr ? Name(*Newest()) : strSpace, true);
    }
};

using OBJECTS = std::map<std::pair<std::string, std::string>, OBJECT>;

// Each logical log of a database is a separate object, with a path of numbers, which no dbspace
// has. They are reported as one, with "*" as the number of the log. A single digit may be a level.
std::string ReportedPath(const ENTRY &I_sEntry)
{
    const std::string &strPath = I_sEntry.strPath;
    const size_t uSlashes = static_cast<size_t>(std::ranges::count(strPath, '/'));
    const bool bLog = I_sEntry.bInformix && strPath.size() > uSlashes + 1 &&
                      strPath.find_first_not_of("0123456789/") == std::string::npos;
    return bLog ? strPath.substr(0, strPath.rfind('/') + 1) + "*" : strPath;
}

// Lines of one second count in their order.
void Take(OBJECTS &X_mapObjects, ENTRY &&I_sEntry)
{
    I_sEntry.strPath = ReportedPath(I_sEntry);
    OBJECT &sObject = X_mapObjects[{I_sEntry.strSpace, I_sEntry.strPath}];
    std::optional<ENTRY> &sLast = I_sEntry.bGood ? sObject.sGood : sObject.sFailure;
    const std::optional<ENTRY> &sOther = I_sEntry.bGood ? sObject.sFailure : sObject.sGood;
    if (!sOther || sOther->iTime <= I_sEntry.iTime) sObject.bFailed = !I_sEntry.bGood;
    if (!sLast || sLast->iTime <= I_sEntry.iTime) sLast = std::move(I_sEntry);
}

STATUS Judge(const OBJECT &I_sObject, const OPTIONS &I_sOptions, int64_t I_iNow)
{
    if (I_sObject.bFailed || !I_sObject.sGood) return STATUS::FAILED;
    const int64_t iAge = I_iNow - I_sObject.sGood->iTime;
    const bool bOld = I_sOptions.uMaxAge > 0 && iAge > static_cast<int64_t>(I_sOptions.uMaxAge);
    if (bOld) return STATUS::OLD;
    const bool bLogs = I_sObject.strPath == "*" || I_sObject.strPath.ends_with("/*");
    const bool bSmall = I_sObject.sGood->uBytes < I_sOptions.uMinSize && !bLogs; // of any size
    return bSmall ? STATUS::SMALL : STATUS::OK;
}

// A requested space without any object counts as failed.
std::vector<OBJECT> ReadObjects(const OPTIONS &I_sOptions, int64_t I_iNow)
{
    OBJECTS mapObjects;
    const std::vector<std::string> &vecSpaces = I_sOptions.vecSpaces;
    ReadJournals(I_sOptions.vecJournals, [&](ENTRY &&sEntry) {
        const bool bWanted =
            vecSpaces.empty() || std::ranges::find(vecSpaces, sEntry.strSpace) != vecSpaces.end();
        if (sEntry.bStore && bWanted) Take(mapObjects, std::move(sEntry));
    });
    std::vector<OBJECT> vecObjects;
    for (auto &[sKey, sObject] : mapObjects)
    {
        std::tie(sObject.strSpace, sObject.strPath) = sKey;
        sObject.eStatus = Judge(sObject, I_sOptions, I_iNow);
        vecObjects.push_back(std::move(sObject));
    }
    for (const std::string &strSpace : vecSpaces)
        if (std::ranges::find(vecObjects, strSpace, &OBJECT::strSpace) == vecObjects.end())
            vecObjects.push_back({strSpace});
    return vecObjects;
}

void TakeMessages(std::vector<OBJECT> &X_vecObjects, const std::string &I_strActLog)
{
    std::vector<trace::SPAN> vecSpans(X_vecObjects.size());
    for (size_t uObject = 0; uObject < vecSpans.size(); uObject++)
        if (const ENTRY *spNewest = X_vecObjects[uObject].Newest())
            vecSpans[uObject] = {spNewest->lProcess,
                                 spNewest->iTime - static_cast<int64_t>(spNewest->dSeconds),
                                 spNewest->iTime};
    const auto vecMessages = trace::MessagesOf(I_strActLog, vecSpans);
    for (size_t uObject = 0; uObject < vecSpans.size(); uObject++)
        X_vecObjects[uObject].vecMessages = vecMessages[uObject];
}

std::string Age(int64_t I_iSeconds)
{
    constexpr std::array<std::pair<const char *, int64_t>, 4> UNITS = {
        {{" d", 86400}, {" h", 3600}, {" min", 60}, {" s", 1}}};
    const auto spUnit = std::ranges::find_if(
        UNITS, [&](const auto &sUnit) { return I_iSeconds >= 2 * sUnit.second; });
    return spUnit == UNITS.end() ? base::Text(I_iSeconds, " s")
                                 : base::Text(I_iSeconds / spUnit->second, spUnit->first);
}

double Rate(const ENTRY &I_sEntry) // bytes a second
{
    return I_sEntry.dSeconds > 0 ? static_cast<double>(I_sEntry.uBytes) / I_sEntry.dSeconds : 0;
}

std::string Amount(double I_dBytes, const char *cpEnd = "")
{
    const bool bSmall = I_dBytes < 1e6;
    return base::Text(std::setprecision(1), I_dBytes / (bSmall ? 1e3 : 1e6), bSmall ? " kB" : " MB",
                      cpEnd);
}

// What is wrong with it; empty if nothing is.
std::string Problem(const OBJECT &I_sObject, int64_t I_iNow)
{
    if (I_sObject.bFailed)
        return base::Text("failed ", Age(I_iNow - I_sObject.sFailure->iTime),
                          " ago: ", base::Printable(I_sObject.sFailure->strError, true));
    if (!I_sObject.sGood) return "never stored";
    if (I_sObject.eStatus == STATUS::OLD)
        return "last good copy " + Age(I_iNow - I_sObject.sGood->iTime) + " ago";
    if (I_sObject.eStatus == STATUS::SMALL)
        return base::Text("last good copy has ", I_sObject.sGood->uBytes, " bytes");
    return "";
}

void PrintRow(const OBJECT &I_sObject, int64_t I_iNow)
{
    const std::optional<ENTRY> &sGood = I_sObject.sGood;
    const std::array<std::pair<int, std::string>, 5> CELLS = {
        {{8, WORDS.at(static_cast<size_t>(I_sObject.eStatus))},
         {10, sGood ? Age(I_iNow - sGood->iTime) : "-"},
         {14, sGood ? Amount(static_cast<double>(sGood->uBytes)) : "-"},
         {14, sGood ? Amount(Rate(*sGood), "/s") : "-"},
         {12, sGood && sGood->bInformix ? std::to_string(sGood->uCopyId) : "-"}}};
    for (const auto &[iWidth, strCell] : CELLS) std::cout << std::setw(iWidth) << strCell;
    std::cout << I_sObject.ShownName() << '\n';
    const std::string strProblem = Problem(I_sObject, I_iNow);
    if (!strProblem.empty()) std::cout << "        " << strProblem << '\n';
    for (const std::string &strMessage : I_sObject.vecMessages)
        std::cout << "        " << strMessage << '\n';
}

size_t Count(const std::vector<OBJECT> &I_vecObjects, STATUS I_eStatus)
{
    return static_cast<size_t>(std::ranges::count(I_vecObjects, I_eStatus, &OBJECT::eStatus));
}

std::string Counts(const std::vector<OBJECT> &I_vecObjects)
{
    std::string strCounts;
    for (size_t uStatus = 0; uStatus < WORDS.size(); uStatus++)
        strCounts +=
            base::Text(uStatus == 0 ? "" : ", ", Count(I_vecObjects, static_cast<STATUS>(uStatus)),
                       ' ', WORDS.at(uStatus));
    return strCounts;
}

void PrintTable(const std::vector<OBJECT> &I_vecObjects, int64_t I_iNow)
{
    if (!I_vecObjects.empty())
        std::cout << "STATUS  AGE       SIZE          RATE          COPY ID     OBJECT\n"
                  << std::left;
    for (const OBJECT &sObject : I_vecObjects) PrintRow(sObject, I_iNow);
    std::cout << (I_vecObjects.empty() ? "no store is recorded" : Counts(I_vecObjects)) << '\n';
}

// The line of the journal, and how long ago it was.
base::JSON Json(const std::optional<ENTRY> &I_sEntry, int64_t I_iNow)
{
    if (!I_sEntry) return nullptr;
    base::JSON sLine = base::JSON::parse(I_sEntry->strText);
    sLine["age_seconds"] = I_iNow - I_sEntry->iTime;
    return sLine;
}

void PrintJson(const std::vector<OBJECT> &I_vecObjects, bool I_bMessages, int64_t I_iNow)
{
    base::JSON sObjects = base::JSON::array();
    for (const OBJECT &sObject : I_vecObjects)
    {
        sObjects.push_back({{"space", sObject.strSpace},
                            {"path", sObject.strPath},
                            {"status", WORDS.at(static_cast<size_t>(sObject.eStatus))},
                            {"last_good", Json(sObject.sGood, I_iNow)},
                            {"last_failure", Json(sObject.sFailure, I_iNow)}});
        if (I_bMessages) sObjects.back()["messages"] = sObject.vecMessages;
    }
    std::cout << base::Dump({{"schema", REPORT_SCHEMA}, {"objects", sObjects}}) << '\n';
}

// A metric without a value for an object has no sample of it.
std::string MetricsText(const std::vector<OBJECT> &I_vecObjects)
{
    std::string strText;
    const auto fpAdd = [&](const std::string &strName, const char *cpHelp, const auto &fpValue) {
        std::string strSamples;
        for (const OBJECT &sObject : I_vecObjects)
            if (const std::string strValue = fpValue(sObject); !strValue.empty())
                strSamples +=
                    base::Text(strName, "{space=", base::LabelValue(sObject.strSpace),
                               ",path=", base::LabelValue(sObject.strPath), "} ", strValue, '\n');
        strText += base::Metric(strName.c_str(), cpHelp, strSamples);
    };
    using std::to_string;
    fpAdd("xbsactl_object_ok", "1 for an object with the status ok.",
          [](const OBJECT &sObject) { return to_string(sObject.eStatus == STATUS::OK ? 1 : 0); });
    fpAdd(
        "xbsactl_object_last_good_timestamp_seconds", "When it was last stored.",
        [](const OBJECT &sObject) { return sObject.sGood ? to_string(sObject.sGood->iTime) : ""; });
    fpAdd("xbsactl_object_last_good_bytes", "Its size then.", [](const OBJECT &sObject) {
        return sObject.sGood ? to_string(sObject.sGood->uBytes) : "";
    });
    fpAdd(
        "xbsactl_object_last_good_bytes_per_second", "The mean rate then.",
        [](const OBJECT &sObject) { return sObject.sGood ? to_string(Rate(*sObject.sGood)) : ""; });
    fpAdd("xbsactl_object_last_failure_timestamp_seconds", "When a store of it last failed.",
          [](const OBJECT &sObject) {
              return sObject.sFailure ? to_string(sObject.sFailure->iTime) : "";
          });
    return strText + base::VersionMetric();
}

void WriteMetrics(const std::string &I_strFile, const std::vector<OBJECT> &I_vecObjects)
{
    if (I_strFile.empty()) return;
    base::EarlierMetrics(I_strFile);
    base::ReplaceText(base::FindTarget(I_strFile), MetricsText(I_vecObjects), false);
}

// The worst object; what follows the "|" is for graphs. A small copy may be intended, the others
// need attention now.
int PrintNagios(const std::vector<OBJECT> &I_vecObjects, int64_t I_iNow)
{
    const auto spGravest = std::ranges::max_element(I_vecObjects, {}, &OBJECT::eStatus);
    const STATUS eStatus = I_vecObjects.empty() ? STATUS::FAILED : spGravest->eStatus;
    std::string strLine = I_vecObjects.empty() ? "no store is recorded; " : "";
    if (!I_vecObjects.empty() && eStatus != STATUS::OK)
        strLine = spGravest->ShownName() + ": " + Problem(*spGravest, I_iNow) + "; ";
    std::ranges::replace(strLine, '|', '/');
    const int iExit = eStatus == STATUS::OK ? 0 : eStatus == STATUS::SMALL ? 1 : 2;
    constexpr std::array<const char *, 3> STATES = {"OK", "WARNING", "CRITICAL"};
    std::cout << "XBSA " << STATES.at(static_cast<size_t>(iExit)) << " - "
              << base::Printable(strLine + Counts(I_vecObjects), true) << " |";
    for (size_t uStatus = 0; uStatus < WORDS.size(); uStatus++)
        std::cout << ' ' << WORDS.at(uStatus) << '='
                  << Count(I_vecObjects, static_cast<STATUS>(uStatus));
    std::cout << '\n';
    return iExit;
}
} // namespace

int Run(const OPTIONS &I_sOptions)
{
    if (I_sOptions.vecJournals.empty())
        throw base::USAGE_ERROR("report needs --journal, or the variable KORVA_JOURNAL: the file "
                                "that the library writes");
    const int64_t iNow = time(nullptr);
    std::vector<OBJECT> vecObjects = ReadObjects(I_sOptions, iNow);
    const bool bMessages = !I_sOptions.strActLog.empty();
    if (bMessages) TakeMessages(vecObjects, I_sOptions.strActLog);
    WriteMetrics(I_sOptions.strPrometheus, vecObjects);
    if (I_sOptions.bNagios) return PrintNagios(vecObjects, iNow);
    if (I_sOptions.bJson) PrintJson(vecObjects, bMessages, iNow);
    else PrintTable(vecObjects, iNow);
    const bool bGood = !vecObjects.empty() && Count(vecObjects, STATUS::OK) == vecObjects.size();
    return bGood ? base::EXIT_DONE : base::EXIT_FAILED;
}
} // namespace report
