#include "setup_journal.h"

#include <nlohmann/json.hpp>

#include "errors.h"

namespace
{
constexpr const char *JOURNAL_FILE = "etc/xbsa-setup.json";

// The journal may be another account's than the one that runs: it names files of ours only.
void CheckRecord(const RECORD &I_sRecord)
{
    const std::string &strFile = I_sRecord.strFile;
    const std::string &strCopy = I_sRecord.strCopy;
    const bool bFile =
        strFile == SETUP_LINK || (strFile.compare(0, 4, "etc/") == 0 && strFile.size() > 4 &&
                                  strFile[4] != '.' && strFile.find('/', 4) == std::string::npos);
    const bool bCopy = strCopy.empty() || (strCopy.rfind(strFile + SETUP_COPY, 0) == 0 &&
                                           strCopy.find('/', strFile.size()) == std::string::npos);
    if (!bFile || !bCopy) throw FAILURE("it names files that setup does not change");
}

JOURNAL ParseJournal(const std::string &I_strText)
{
    const nlohmann::json sJson = nlohmann::json::parse(I_strText);
    JOURNAL sJournal;
    sJournal.strRow = sJson.at("row");
    for (const auto &sEntry : sJson.at("files"))
    {
        sJournal.vecRecords.push_back(
            {sEntry.at("file"), sEntry.at("copy"), sEntry.at("before"), sEntry.at("after")});
        CheckRecord(sJournal.vecRecords.back());
    }
    return sJournal;
}
} // namespace

const RECORD *JOURNAL::Find(const std::string &I_strFile) const
{
    for (const RECORD &sRecord : vecRecords)
    {
        if (sRecord.strFile == I_strFile) return &sRecord;
    }
    return nullptr;
}

JOURNAL setupjournal_Read(const PLACE &I_sPlace)
{
    const std::optional<std::string> strText = setupfiles_Content(I_sPlace, JOURNAL_FILE, false);
    if (!strText) return {};
    try
    {
        return ParseJournal(*strText);
    } catch (const nlohmann::json::exception &)
    {
        throw FAILURE(setupfiles_Path(I_sPlace, JOURNAL_FILE) + " is damaged: copy the files NAME" +
                      SETUP_COPY + " back over those of that NAME, and remove it");
    } catch (const FAILURE &sError)
    {
        throw FAILURE(setupfiles_Path(I_sPlace, JOURNAL_FILE) +
                      " cannot be used: " + Printable(sError.what()));
    }
}

void setupjournal_Write(const PLACE &I_sPlace, const JOURNAL &I_sJournal)
{
    if (I_sJournal.vecRecords.empty())
    {
        setupfiles_Remove(setupfiles_Path(I_sPlace, JOURNAL_FILE));
        return;
    }
    nlohmann::ordered_json sJson = {{"schema", 1}, {"row", I_sJournal.strRow}};
    for (const RECORD &sRecord : I_sJournal.vecRecords)
    {
        sJson["files"].push_back({{"file", sRecord.strFile},
                                  {"copy", sRecord.strCopy},
                                  {"before", sRecord.strBefore},
                                  {"after", sRecord.strAfter}});
    }
    setupfiles_WriteFile(I_sPlace, JOURNAL_FILE, sJson.dump(2) + "\n");
}
