#include "base/json.h"

#include <nlohmann/json.hpp>

#include "base/errors.h"
#include "check/report.h"
#include "library/session.h"
#include "setup/journal.h"

namespace
{
using JSON = nlohmann::ordered_json;

const char *StatusName(STATUS I_eStatus)
{
    switch (I_eStatus)
    {
    case STATUS::OK:
        return "ok";
    case STATUS::WARN:
        return "warn";
    case STATUS::FAIL:
        return "fail";
    case STATUS::NOT_TRIED:
        break;
    }
    return "not_tried";
}

// Names are bytes: what is no UTF-8 is replaced rather than refused. All but ASCII is escaped, since
// a terminal obeys some of it.
std::string Dump(const JSON &I_sJson)
{
    return I_sJson.dump(2, ' ', true, JSON::error_handler_t::replace);
}
} // namespace

std::string json_Copies(const SETTINGS &I_sSettings,
                        const std::vector<BSA_ObjectDescriptor> &I_vecCopies)
{
    JSON sCopies = JSON::array();
    for (const BSA_ObjectDescriptor &sCopy : I_vecCopies)
        sCopies.push_back({{"copy_id", sCopy.copyId.right},
                           {"space", session_Field(sCopy.objectName.objectSpaceName)},
                           {"name", session_Field(sCopy.objectName.pathName)}});
    return Dump({{"schema", 1},
                 {"query", {{"space", I_sSettings.strSpace}, {"name", I_sSettings.strName}}},
                 {"copies", sCopies}});
}

std::string json_Findings(bool I_bInformix, const std::vector<FINDING> &I_vecFindings)
{
    JSON sAnswer = {{"schema", 1},
                    {"road", I_bInformix ? "informix" : "plain"},
                    {"ok", 0},
                    {"warn", 0},
                    {"fail", 0},
                    {"not_tried", 0},
                    {"steps", JSON::array()}};
    for (const FINDING &sFinding : I_vecFindings)
    {
        const char *cpStatus = StatusName(sFinding.eStatus);
        sAnswer[cpStatus] = sAnswer[cpStatus].get<int>() + 1;
        sAnswer["steps"].push_back({{"id", sFinding.strStep},
                                    {"status", cpStatus},
                                    {"found", sFinding.strFound},
                                    {"next", sFinding.strNext},
                                    {"milliseconds", sFinding.lMilliseconds}});
    }
    return Dump(sAnswer);
}

std::string json_Journal(const JOURNAL &I_sJournal)
{
    JSON sJson = {{"schema", 1}, {"row", I_sJournal.strRow}};
    for (const RECORD &sRecord : I_sJournal.vecRecords)
        sJson["files"].push_back({{"file", sRecord.strFile},
                                  {"copy", sRecord.strCopy},
                                  {"before", sRecord.strBefore},
                                  {"after", sRecord.strAfter}});
    return sJson.dump(2);
}

JOURNAL json_ReadJournal(const std::string &I_strText)
{
    try
    {
        const JSON sJson = JSON::parse(I_strText);
        JOURNAL sJournal;
        sJournal.strRow = sJson.at("row");
        for (const JSON &sEntry : sJson.at("files"))
            sJournal.vecRecords.push_back(
                {sEntry.at("file"), sEntry.at("copy"), sEntry.at("before"), sEntry.at("after")});
        return sJournal;
    } catch (const JSON::exception &sError)
    {
        throw FAILURE(sError.what());
    }
}

std::string json_Quoted(const std::string &I_strText)
{
    return JSON(I_strText).dump(-1, ' ', false, JSON::error_handler_t::replace);
}
