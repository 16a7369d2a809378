// Files below the database's directory, and the journal there.
#include <algorithm>
#include <cerrno>

#include "base/json.h"
#include "setup/parts.h"

namespace setup
{
namespace
{
constexpr const char *JOURNAL_FILE = "etc/xbsa-setup.json";
constexpr off_t JOURNAL_LARGEST = 1 << 16; // bytes: bounds the time that a hostile text can take

// The journal may belong to another account than the one that runs, so it may name only our files.
bool IsOurs(const RECORD &I_sRecord)
{
    const auto &[strFile, strCopy, strBefore, strAfter] = I_sRecord;
    const bool bFile = strFile == LINK || (strFile.starts_with("etc/") && strFile.size() > 4 &&
                                           strFile[4] != '.' && strFile.rfind('/') == 3);
    return bFile && (strCopy.empty() ||
                     (strCopy.starts_with(strFile + COPY_END) && strCopy.rfind('/') == 3));
}
} // namespace

std::optional<std::string> PLACE::Content(const std::string &I_strFile, off_t I_iLargest) const
{
    const base::TARGET sTarget = At(I_strFile);
    const auto sStatus = sTarget.spFolder != nullptr ? sTarget.Status() : std::nullopt;
    if (!sStatus) return std::nullopt;
    if (I_strFile != LINK || !S_ISLNK(sStatus->st_mode)) return base::ReadText(sTarget, I_iLargest);
    return base::LinkText(sTarget.Folder(), sTarget.strName, sTarget.strShown);
}

std::string HashOf(const std::optional<std::string> &I_strContent)
{
    base::CSha256 sHash;
    if (!I_strContent) return "";
    sHash.Add(*I_strContent);
    return sHash.Digits();
}

void PLACE::Write(const std::string &I_strFile, const std::string &I_strText) const
{
    if (I_strFile != LINK) return base::ReplaceText(At(I_strFile), I_strText, true);
    const std::string strNew = std::string(LINK) + ".xbsactl";
    Remove(strNew); // of a run that was killed
    if (symlinkat(I_strText.c_str(), spLib->Get(), At(strNew).strName.c_str()) != 0)
        throw base::SystemFailure(Path(LINK));
    Move(strNew, LINK);
}

void PLACE::Remove(const std::string &I_strFile) const
{
    if (I_strFile.empty()) return;
    const base::TARGET sTarget = At(I_strFile);
    if (unlinkat(sTarget.Folder(), sTarget.strName.c_str(), 0) != 0 && errno != ENOENT)
        throw base::SystemFailure(sTarget.strShown);
}

void PLACE::KeepCopy(const std::string &I_strFile, const std::string &I_strCopy) const
{
    const base::TARGET sFrom = At(I_strFile);
    const base::TARGET sCopy = At(I_strCopy);
    if (linkat(sFrom.Folder(), sFrom.strName.c_str(), sCopy.Folder(), sCopy.strName.c_str(), 0) !=
        0)
        throw base::SystemFailure("keeping a copy of " + sFrom.strShown);
}

// A rename does nothing when both names are still the same file, so the old name is removed
// separately.
void PLACE::Move(const std::string &I_strFrom, const std::string &I_strTo) const
{
    const base::TARGET sFrom = At(I_strFrom);
    const base::TARGET sTo = At(I_strTo);
    if (renameat(sFrom.Folder(), sFrom.strName.c_str(), sTo.Folder(), sTo.strName.c_str()) != 0)
        throw base::SystemFailure(sTo.strShown);
    Remove(I_strFrom);
}

JOURNAL ReadJournal(const PLACE &I_sPlace)
{
    const std::optional<std::string> strText = I_sPlace.Content(JOURNAL_FILE, JOURNAL_LARGEST);
    if (!strText) return {};
    const std::string strPath = I_sPlace.Path(JOURNAL_FILE);
    JOURNAL sJournal;
    try
    {
        const base::JSON sJson = base::JSON::parse(*strText);
        sJournal.strRow = sJson.at("row");
        sJournal.strLibrary = sJson.value("library", "");
        for (const base::JSON &sEntry : sJson.at("files"))
            sJournal.vecRecords.push_back(
                {sEntry.at("file"), sEntry.at("copy"), sEntry.at("before"), sEntry.at("after")});
    } catch (const base::JSON::exception &)
    {
        throw base::FileFailure(strPath, " is damaged: copy the files NAME", COPY_END,
                                " back to NAME, and remove this file");
    }
    if (!std::ranges::all_of(sJournal.vecRecords, IsOurs))
        throw base::FileFailure(strPath,
                                " cannot be used: it names files that setup does not change");
    return sJournal;
}

void WriteJournal(const PLACE &I_sPlace, const JOURNAL &I_sJournal)
{
    if (I_sJournal.vecRecords.empty()) return I_sPlace.Remove(JOURNAL_FILE);
    base::JSON sJson = {
        {"schema", 1}, {"row", I_sJournal.strRow}, {"library", I_sJournal.strLibrary}};
    for (const RECORD &sRecord : I_sJournal.vecRecords)
        sJson["files"].push_back({{"file", sRecord.strFile},
                                  {"copy", sRecord.strCopy},
                                  {"before", sRecord.strBefore},
                                  {"after", sRecord.strAfter}});
    I_sPlace.Write(JOURNAL_FILE, sJson.dump(2) + "\n");
}
} // namespace setup
