// Changes files so that they can be put back: the old file stays beside the new one as a copy, and
// a journal says what was done.
#include <fcntl.h>

#include <algorithm>

#include "setup/parts.h"

namespace setup
{
namespace
{
constexpr const char *EDITED = "edited";                // no content has this hash
constexpr const char *LOGROTATE = "etc/xbsa.logrotate"; // earlier versions made it
constexpr int MOST_COPIES = 99;

// Between the onconfigs of a folder.
bool IsShared(const std::string &I_strFile)
{
    return I_strFile == LINK || I_strFile == VERSIONS || I_strFile == LOGROTATE;
}

std::string HashNow(const PLACE &I_sPlace, const std::string &I_strFile)
{
    return HashOf(Content(I_sPlace, I_strFile));
}

// An earlier copy is never overwritten.
std::string FreeCopyName(const PLACE &I_sPlace, const std::string &I_strFile)
{
    for (int iNumber = 1; iNumber <= MOST_COPIES; iNumber++)
    {
        std::string strCopy = I_strFile + COPY_END;
        if (iNumber > 1) strCopy += "." + std::to_string(iNumber);
        if (!I_sPlace.Exists(strCopy)) return strCopy;
    }
    throw base::FileFailure(I_sPlace.Path(I_strFile) + ": too many old copies beside it");
}

struct STEP
{
    CHANGE sChange;
    std::string strCopy; // made by this run; empty for none
};

// Updates the journal for a change.
STEP Note(const PLACE &I_sPlace, JOURNAL &X_sJournal, const CHANGE &I_sChange)
{
    const std::string strBefore = HashOf(I_sChange.strBefore);
    const std::string strAfter = HashOf(I_sChange.strAfter);
    if (RECORD *spRecord = X_sJournal.Find(I_sChange.strFile))
    {
        const bool bFresh =
            strBefore == spRecord->strBefore; // a run was killed, or put back by hand
        spRecord->strAfter = bFresh || strBefore == spRecord->strAfter ? strAfter : EDITED;
        const bool bCopy = bFresh && I_sChange.strBefore && !I_sPlace.Exists(spRecord->strCopy);
        return {I_sChange, bCopy ? spRecord->strCopy : ""};
    }
    const std::string strCopy =
        I_sChange.strBefore ? FreeCopyName(I_sPlace, I_sChange.strFile) : "";
    X_sJournal.vecRecords.push_back({I_sChange.strFile, strCopy, strBefore, strAfter});
    return {I_sChange, strCopy};
}

void TakeBack(const PLACE &I_sPlace, const STEP &I_sStep)
{
    const CHANGE &sChange = I_sStep.sChange;
    if (!I_sStep.strCopy.empty())
    {
        if (I_sPlace.Exists(I_sStep.strCopy)) MoveBack(I_sPlace, I_sStep.strCopy, sChange.strFile);
    }
    else if (!sChange.strBefore) Remove(I_sPlace, sChange.strFile);
    else Write(I_sPlace, sChange.strFile, *sChange.strBefore);
}

// What another account owns could be neither kept as a copy nor replaced without a new owner.
void RefuseForeign(const PLACE &I_sPlace, const std::string &I_strFile)
{
    const std::optional<struct stat> sStatus = I_sPlace.At(I_strFile).Status();
    if (geteuid() == 0 || !sStatus || sStatus->st_uid == geteuid()) return;
    throw base::FileFailure(
        I_sPlace.Path(I_strFile) + " belongs to account " + std::to_string(sStatus->st_uid) +
        ", and setup runs as " + std::to_string(geteuid()) + ": " +
        (I_strFile == I_sPlace.strOnconfig ? "run setup as its owner, or as root"
                                           : "give it the onconfig's owner first") +
        "; nothing was changed");
}

void RefuseClosed(const PLACE &I_sPlace)
{
    if (faccessat(I_sPlace.spEtc->Get(), ".", W_OK | X_OK, AT_EACCESS) == 0) return;
    throw base::FileFailure(I_sPlace.Path("etc") + ": this account may not write there: run setup "
                                                   "as the folder's owner or as root; nothing was "
                                                   "changed");
}

// The reader of the question may have taken a while to answer.
void CheckUnchanged(const PLACE &I_sPlace, const std::vector<CHANGE> &I_vecChanges)
{
    for (const CHANGE &sChange : I_vecChanges)
    {
        RefuseForeign(I_sPlace, sChange.strFile);
        if (Content(I_sPlace, sChange.strFile) != sChange.strBefore)
            throw base::FileFailure(I_sPlace.Path(sChange.strFile) +
                                    " was changed meanwhile: run setup again");
    }
}

// An edited file keeps what others wrote: only our lines go.
void PlanEdited(const PLACE &I_sPlace, const JOURNAL &I_sJournal, const std::string &I_strText,
                UNDO &X_sUndo)
{
    const RECORD &sRecord = X_sUndo.sRecord;
    std::string strWhy = " was changed since setup";
    try
    {
        if (sRecord.strFile == VERSIONS)
            X_sUndo.strText = VersionsWithout(I_strText, I_sJournal.strRow);
        else if (!IsShared(sRecord.strFile))
            X_sUndo.strText = OnconfigWithout(I_strText, I_sJournal.strLibrary, X_sUndo.strKept);
    } catch (const base::FAILURE &sFailure)
    {
        strWhy = std::string(": ") + sFailure.what();
    }
    if (X_sUndo.strText) return;
    const std::string strCopy =
        sRecord.strCopy.empty() ? "" : "; the old file is " + I_sPlace.Path(sRecord.strCopy);
    throw base::FileFailure(I_sPlace.Path(sRecord.strFile) + strWhy +
                            ": put it right by hand first" + strCopy);
}

UNDO PlanRecord(const PLACE &I_sPlace, const JOURNAL &I_sJournal, const RECORD &I_sRecord)
{
    const std::optional<std::string> strText = Content(I_sPlace, I_sRecord.strFile);
    const std::string strNow = HashOf(strText);
    UNDO sUndo;
    sUndo.sRecord = I_sRecord;
    if (strNow == I_sRecord.strBefore) return sUndo;
    sUndo.bPutBack = strNow == I_sRecord.strAfter;
    if (!strText)
        throw base::FileFailure(I_sPlace.Path(I_sRecord.strFile) + " was removed since setup");
    if (!sUndo.bPutBack) PlanEdited(I_sPlace, I_sJournal, *strText, sUndo);
    else if (!I_sRecord.strCopy.empty() &&
             HashNow(I_sPlace, I_sRecord.strCopy) != I_sRecord.strBefore)
        throw base::FileFailure(I_sPlace.Path(I_sRecord.strCopy) +
                                ": this copy of the old file is gone or was changed");
    return sUndo;
}
} // namespace

// The journal is written first: a run that is killed can be undone, since what was not done yet
// shows as unchanged.
void Apply(const PLACE &I_sPlace, JOURNAL I_sJournal, const std::vector<CHANGE> &I_vecChanges)
{
    const JOURNAL sOld = ReadJournal(I_sPlace);
    std::vector<STEP> vecSteps;
    CheckUnchanged(I_sPlace, I_vecChanges);
    RefuseClosed(I_sPlace);
    vecSteps.reserve(I_vecChanges.size());
    for (const CHANGE &sChange : I_vecChanges)
        vecSteps.push_back(Note(I_sPlace, I_sJournal, sChange));
    auto sStep = vecSteps.begin();
    try
    {
        WriteJournal(I_sPlace, I_sJournal);
        while (sStep != vecSteps.end())
        {
            const STEP &sDone = *sStep++; // it counts when it fails, too
            if (!sDone.strCopy.empty()) KeepCopy(I_sPlace, sDone.sChange.strFile, sDone.strCopy);
            Write(I_sPlace, sDone.sChange.strFile, sDone.sChange.strAfter);
        }
    } catch (const base::FAILURE &)
    {
        while (sStep != vecSteps.begin()) TakeBack(I_sPlace, *--sStep);
        WriteJournal(I_sPlace, sOld);
        throw;
    }
}

// What all onconfigs of the folder share stays while another of them is hooked.
std::vector<UNDO> PlanUndo(const PLACE &I_sPlace, JOURNAL I_sJournal)
{
    const auto &vecRecords = I_sJournal.vecRecords;
    const bool bOther =
        std::any_of(vecRecords.begin(), vecRecords.end(), [&I_sPlace](const RECORD &sRecord) {
            return !IsShared(sRecord.strFile) && sRecord.strFile != I_sPlace.strOnconfig;
        });
    std::vector<UNDO> vecUndo;
    for (const RECORD &sRecord : vecRecords)
        if (sRecord.strFile == I_sPlace.strOnconfig || (IsShared(sRecord.strFile) && !bOther))
            vecUndo.push_back(PlanRecord(I_sPlace, I_sJournal, sRecord));
    return vecUndo;
}

void Undo(const PLACE &I_sPlace, JOURNAL I_sJournal, const std::vector<UNDO> &I_vecUndo)
{
    auto &vecRecords = I_sJournal.vecRecords;
    RefuseClosed(I_sPlace);
    for (const UNDO &sUndo : I_vecUndo)
    {
        const RECORD &sRecord = sUndo.sRecord;
        const bool bCopy = !sRecord.strCopy.empty();
        if (sUndo.strText) Write(I_sPlace, sRecord.strFile, *sUndo.strText);
        else if (sUndo.bPutBack && bCopy) MoveBack(I_sPlace, sRecord.strCopy, sRecord.strFile);
        else if (sUndo.bPutBack) Remove(I_sPlace, sRecord.strFile);
        else if (bCopy) Remove(I_sPlace, sRecord.strCopy);
        vecRecords.erase(std::remove_if(vecRecords.begin(), vecRecords.end(),
                                        [&sRecord](const RECORD &sOther) {
                                            return sOther.strFile == sRecord.strFile;
                                        }),
                         vecRecords.end());
    }
    WriteJournal(I_sPlace, I_sJournal);
}
} // namespace setup
