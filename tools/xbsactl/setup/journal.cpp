#include "setup/journal.h"

#include "base/base.h"
#include "base/json.h"

namespace setup
{
namespace
{
constexpr const char *JOURNAL_FILE = "etc/xbsa-setup.json";
constexpr off_t JOURNAL_LARGEST = 1 << 16; // bytes: a text made to take long is short then

// The journal may be another account's than the one that runs: it names files of ours only.
bool IsOurs(const RECORD &I_sRecord)
{
    const std::string &strFile = I_sRecord.strFile;
    const std::string &strCopy = I_sRecord.strCopy;
    const bool bFile =
        strFile == SETUP_LINK || (strFile.compare(0, 4, "etc/") == 0 && strFile.size() > 4 &&
                                  strFile[4] != '.' && strFile.find('/', 4) == std::string::npos);
    const bool bCopy = strCopy.empty() || (strCopy.rfind(strFile + SETUP_COPY, 0) == 0 &&
                                           strCopy.find('/', strFile.size()) == std::string::npos);
    return bFile && bCopy;
}
std::string Json(const JOURNAL &I_sJournal)
{
    base::JSON sJson = {{"schema", 1}, {"row", I_sJournal.strRow}};
    for (const RECORD &sRecord : I_sJournal.vecRecords)
        sJson["files"].push_back({{"file", sRecord.strFile},
                                  {"copy", sRecord.strCopy},
                                  {"before", sRecord.strBefore},
                                  {"after", sRecord.strAfter}});
    return sJson.dump(2);
}

JOURNAL Parse(const std::string &I_strText)
{
    const base::JSON sJson = base::JSON::parse(I_strText);
    JOURNAL sJournal;
    sJournal.strRow = sJson.at("row");
    for (const base::JSON &sEntry : sJson.at("files"))
        sJournal.vecRecords.push_back(
            {sEntry.at("file"), sEntry.at("copy"), sEntry.at("before"), sEntry.at("after")});
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

JOURNAL ReadJournal(const PLACE &I_sPlace)
{
    const std::optional<std::string> strText =
        Content(I_sPlace, JOURNAL_FILE, false, JOURNAL_LARGEST);
    if (!strText) return {};
    const std::string strPath = PathOf(I_sPlace, JOURNAL_FILE);
    JOURNAL sJournal;
    try
    {
        sJournal = Parse(*strText);
    } catch (const base::JSON::exception &)
    {
        throw base::FAILURE(strPath + " is damaged: copy the files NAME" + SETUP_COPY +
                            " back over those of that NAME, and remove it");
    }
    for (const RECORD &sRecord : sJournal.vecRecords)
        if (!IsOurs(sRecord))
            throw base::FAILURE(strPath +
                                " cannot be used: it names files that setup does not change");
    return sJournal;
}

void WriteJournal(const PLACE &I_sPlace, const JOURNAL &I_sJournal)
{
    if (I_sJournal.vecRecords.empty())
    {
        Remove(I_sPlace, JOURNAL_FILE);
        return;
    }
    WriteFile(I_sPlace, JOURNAL_FILE, Json(I_sJournal) + "\n");
}
} // namespace setup
