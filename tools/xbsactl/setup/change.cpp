#include "setup/change.h"

#include <algorithm>

#include "base/base.h"
#include "setup/text.h"

namespace setup
{
namespace
{
constexpr const char *EDITED = "edited"; // no content has this hash
constexpr int MOST_COPIES = 99;

bool IsShared(const std::string &I_strFile)
{
    return I_strFile.compare(0, 4, "lib/") == 0 || I_strFile == SETUP_VERSIONS ||
           I_strFile == SETUP_LOGROTATE;
}

bool IsLink(const std::string &I_strFile)
{
    return I_strFile.compare(0, 4, "lib/") == 0;
}

std::string HashNow(const PLACE &I_sPlace, const std::string &I_strFile, bool I_bLink)
{
    const std::optional<std::string> strContent = Content(I_sPlace, I_strFile, I_bLink);
    return strContent ? Hash(*strContent) : "";
}

// An earlier copy is never overwritten.
std::string FreeCopyName(const PLACE &I_sPlace, const std::string &I_strFile)
{
    for (int iNumber = 1; iNumber <= MOST_COPIES; iNumber++)
    {
        std::string strCopy = I_strFile + SETUP_COPY;
        if (iNumber > 1) strCopy.append(".").append(std::to_string(iNumber));
        if (!Exists(I_sPlace, strCopy)) return strCopy;
    }
    throw base::FAILURE(PathOf(I_sPlace, I_strFile) + ": too many old copies beside it");
}

// Updates the journal for a change. Returns whether a copy is to be made.
bool Note(const PLACE &I_sPlace, JOURNAL &I_sJournal, const CHANGE &I_sChange)
{
    const std::string strBefore = I_sChange.strBefore ? Hash(*I_sChange.strBefore) : "";
    const std::string strAfter = Hash(I_sChange.strAfter);
    for (RECORD &sRecord : I_sJournal.vecRecords)
    {
        if (sRecord.strFile != I_sChange.strFile) continue;
        const bool bFresh = strBefore == sRecord.strBefore; // a run was killed, or put back by hand
        sRecord.strAfter = bFresh || strBefore == sRecord.strAfter ? strAfter : EDITED;
        return bFresh && I_sChange.strBefore && !Exists(I_sPlace, sRecord.strCopy);
    }
    std::string strCopy =
        I_sChange.strBefore ? FreeCopyName(I_sPlace, I_sChange.strFile) : std::string();
    I_sJournal.vecRecords.push_back({I_sChange.strFile, strCopy, strBefore, strAfter});
    return I_sChange.strBefore.has_value();
}

struct STEP
{
    CHANGE sChange;
    std::string strCopy; // made by this run; empty for none
};

void Do(const PLACE &I_sPlace, const STEP &I_sStep)
{
    const CHANGE &sChange = I_sStep.sChange;
    if (!I_sStep.strCopy.empty()) Copy(I_sPlace, sChange.strFile, I_sStep.strCopy);
    if (sChange.bLink) WriteLink(I_sPlace, sChange.strFile, sChange.strAfter);
    else WriteFile(I_sPlace, sChange.strFile, sChange.strAfter);
}

void TakeBack(const PLACE &I_sPlace, const STEP &I_sStep)
{
    const CHANGE &sChange = I_sStep.sChange;
    if (!I_sStep.strCopy.empty())
    {
        if (Exists(I_sPlace, I_sStep.strCopy)) MoveBack(I_sPlace, I_sStep.strCopy, sChange.strFile);
    }
    else if (!sChange.strBefore) Remove(I_sPlace, sChange.strFile);
    else if (sChange.bLink) WriteLink(I_sPlace, sChange.strFile, *sChange.strBefore);
    else WriteFile(I_sPlace, sChange.strFile, *sChange.strBefore);
}

// The reader of the question may have taken a while to answer.
void CheckUnchanged(const PLACE &I_sPlace, const std::vector<CHANGE> &I_vecChanges)
{
    for (const CHANGE &sChange : I_vecChanges)
    {
        RefuseForeign(I_sPlace, sChange.strFile);
        if (Content(I_sPlace, sChange.strFile, sChange.bLink) != sChange.strBefore)
            throw base::FAILURE(PathOf(I_sPlace, sChange.strFile) +
                                " was changed meanwhile: run setup again");
    }
}

void TakeAllBack(const PLACE &I_sPlace, const JOURNAL &I_sOld, std::vector<STEP> I_vecDone)
{
    std::reverse(I_vecDone.begin(), I_vecDone.end());
    for (const STEP &sStep : I_vecDone) TakeBack(I_sPlace, sStep);
    WriteJournal(I_sPlace, I_sOld);
}

// An edited file keeps what others wrote: only our lines go.
std::optional<std::string> WithoutOurs(const PLACE &I_sPlace, const JOURNAL &I_sJournal,
                                       const RECORD &I_sRecord, const std::string &I_strText)
{
    const std::string strPath = PathOf(I_sPlace, I_sRecord.strFile);
    const std::string strCopy =
        I_sRecord.strCopy.empty() ? "" : "; the old file is " + PathOf(I_sPlace, I_sRecord.strCopy);
    if (I_sRecord.strFile == SETUP_VERSIONS) return VersionsWithout(I_strText, I_sJournal.strRow);
    if (IsShared(I_sRecord.strFile))
        throw base::FAILURE(strPath + " was changed since setup: put it right by hand first" +
                            strCopy);
    try
    {
        return OnconfigWithout(I_strText);
    } catch (const base::FAILURE &sFailure)
    {
        throw base::FAILURE(strPath + ": " + sFailure.what() + ": put it right by hand first" +
                            strCopy);
    }
}

UNDO PlanRecord(const PLACE &I_sPlace, const JOURNAL &I_sJournal, const RECORD &I_sRecord)
{
    const bool bLink = IsLink(I_sRecord.strFile);
    const std::string strNow = HashNow(I_sPlace, I_sRecord.strFile, bLink);
    UNDO sUndo;
    sUndo.sRecord = I_sRecord;
    if (strNow == I_sRecord.strBefore) return sUndo;
    if (strNow == I_sRecord.strAfter)
    {
        if (!I_sRecord.strCopy.empty() &&
            HashNow(I_sPlace, I_sRecord.strCopy, bLink) != I_sRecord.strBefore)
            throw base::FAILURE(PathOf(I_sPlace, I_sRecord.strCopy) +
                                ": this copy of the old file is gone or was changed");
        sUndo.bPutBack = true;
        return sUndo;
    }
    const std::optional<std::string> strText = Content(I_sPlace, I_sRecord.strFile, bLink);
    if (!strText)
        throw base::FAILURE(PathOf(I_sPlace, I_sRecord.strFile) + " was removed since setup");
    sUndo.strText = WithoutOurs(I_sPlace, I_sJournal, I_sRecord, *strText);
    return sUndo;
}
} // namespace

// The journal is written first: a run that is killed can be undone, since what was not done yet
// shows as unchanged.
void Apply(const PLACE &I_sPlace, JOURNAL I_sJournal, const std::vector<CHANGE> &I_vecChanges)
{
    const JOURNAL sOld = I_sJournal;
    std::vector<STEP> vecSteps;
    CheckUnchanged(I_sPlace, I_vecChanges);
    for (const CHANGE &sChange : I_vecChanges)
    {
        const bool bCopy = Note(I_sPlace, I_sJournal, sChange);
        vecSteps.push_back({sChange, bCopy ? I_sJournal.Find(sChange.strFile)->strCopy : ""});
    }
    std::vector<STEP> vecDone;
    try
    {
        WriteJournal(I_sPlace, I_sJournal);
        for (const STEP &sStep : vecSteps)
        {
            vecDone.push_back(sStep);
            Do(I_sPlace, sStep);
        }
    } catch (const base::FAILURE &)
    {
        TakeAllBack(I_sPlace, sOld, vecDone);
        throw;
    }
}

// What all onconfigs of the folder share stays while another of them is hooked.
std::vector<UNDO> PlanUndo(const PLACE &I_sPlace, const JOURNAL &I_sJournal)
{
    const auto &vecRecords = I_sJournal.vecRecords;
    const bool bOther =
        std::any_of(vecRecords.begin(), vecRecords.end(), [&I_sPlace](const RECORD &sRecord) {
            return !IsShared(sRecord.strFile) && sRecord.strFile != I_sPlace.strOnconfig;
        });
    std::vector<UNDO> vecUndo;
    for (const RECORD &sRecord : vecRecords)
    {
        const bool bOurs = sRecord.strFile == I_sPlace.strOnconfig;
        if (bOurs || (IsShared(sRecord.strFile) && !bOther))
            vecUndo.push_back(PlanRecord(I_sPlace, I_sJournal, sRecord));
    }
    return vecUndo;
}

void TakeBackAll(const PLACE &I_sPlace, JOURNAL I_sJournal, const std::vector<UNDO> &I_vecUndo)
{
    for (const UNDO &sUndo : I_vecUndo)
    {
        const RECORD &sRecord = sUndo.sRecord;
        if (sUndo.strText) WriteFile(I_sPlace, sRecord.strFile, *sUndo.strText);
        else if (!sUndo.bPutBack)
        {
            if (!sRecord.strCopy.empty()) Remove(I_sPlace, sRecord.strCopy);
        }
        else if (sRecord.strCopy.empty()) Remove(I_sPlace, sRecord.strFile);
        else MoveBack(I_sPlace, sRecord.strCopy, sRecord.strFile);
        auto &vecRecords = I_sJournal.vecRecords;
        vecRecords.erase(std::remove_if(vecRecords.begin(), vecRecords.end(),
                                        [&sRecord](const RECORD &sOther) {
                                            return sOther.strFile == sRecord.strFile;
                                        }),
                         vecRecords.end());
    }
    WriteJournal(I_sPlace, I_sJournal);
}
} // namespace setup
