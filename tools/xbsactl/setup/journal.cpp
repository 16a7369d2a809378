#include "setup/journal.h"

#include "base/errors.h"
#include "base/json.h"

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
    const std::optional<std::string> strText =
        setupfiles_Content(I_sPlace, JOURNAL_FILE, false, JOURNAL_LARGEST);
    if (!strText) return {};
    const std::string strPath = place_Path(I_sPlace, JOURNAL_FILE);
    JOURNAL sJournal;
    try
    {
        sJournal = json_ReadJournal(*strText);
    } catch (const FAILURE &)
    {
        throw FAILURE(strPath + " is damaged: copy the files NAME" + SETUP_COPY +
                      " back over those of that NAME, and remove it");
    }
    for (const RECORD &sRecord : sJournal.vecRecords)
        if (!IsOurs(sRecord))
            throw FAILURE(strPath + " cannot be used: it names files that setup does not change");
    return sJournal;
}

void setupjournal_Write(const PLACE &I_sPlace, const JOURNAL &I_sJournal)
{
    if (I_sJournal.vecRecords.empty())
    {
        setupfiles_Remove(I_sPlace, JOURNAL_FILE);
        return;
    }
    setupfiles_WriteFile(I_sPlace, JOURNAL_FILE, json_Journal(I_sJournal) + "\n");
}
