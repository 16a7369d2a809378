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

// Updates the journal for a change, and names the copy that it needs.
void Note(const PLACE &I_sPlace, JOURNAL &X_sJournal, CHANGE &X_sChange)
{
    const std::string strBefore = HashOf(X_sChange.strBefore);
    const std::string strAfter = HashOf(X_sChange.strAfter);
    RECORD *spRecord = X_sJournal.Find(X_sChange.strFile);
    if (spRecord == nullptr)
    {
        if (X_sChange.strBefore) X_sChange.strCopy = FreeCopyName(I_sPlace, X_sChange.strFile);
        X_sJournal.vecRecords.push_back(
            {X_sChange.strFile, X_sChange.strCopy, strBefore, strAfter});
        return;
    }
    const bool bFresh = strBefore == spRecord->strBefore; // a run was killed, or put back by hand
    spRecord->strAfter = bFresh || strBefore == spRecord->strAfter ? strAfter : EDITED;
    if (bFresh && X_sChange.strBefore && !I_sPlace.Exists(spRecord->strCopy))
        X_sChange.strCopy = spRecord->strCopy;
}

void TakeBack(const PLACE &I_sPlace, const CHANGE &I_sChange)
{
    if (!I_sChange.strCopy.empty())
    {
        if (I_sPlace.Exists(I_sChange.strCopy))
            I_sPlace.MoveBack(I_sChange.strCopy, I_sChange.strFile);
    }
    else if (!I_sChange.strBefore) I_sPlace.Remove(I_sChange.strFile);
    else I_sPlace.Write(I_sChange.strFile, *I_sChange.strBefore);
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
        if (I_sPlace.Content(sChange.strFile) != sChange.strBefore)
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
    const std::optional<std::string> strText = I_sPlace.Content(I_sRecord.strFile);
    const std::string strNow = HashOf(strText);
    UNDO sUndo;
    sUndo.sRecord = I_sRecord;
    if (strNow == I_sRecord.strBefore) return sUndo;
    sUndo.bPutBack = strNow == I_sRecord.strAfter;
    if (!strText)
        throw base::FileFailure(I_sPlace.Path(I_sRecord.strFile) + " was removed since setup");
    if (!sUndo.bPutBack) PlanEdited(I_sPlace, I_sJournal, *strText, sUndo);
    else if (!I_sRecord.strCopy.empty() &&
             HashOf(I_sPlace.Content(I_sRecord.strCopy)) != I_sRecord.strBefore)
        throw base::FileFailure(I_sPlace.Path(I_sRecord.strCopy) +
                                ": this copy of the old file is gone or was changed");
    return sUndo;
}
} // namespace

// The journal is written first: a run that is killed can be undone, since what was not done yet
// shows as unchanged.
void Apply(const PLACE &I_sPlace, JOURNAL I_sJournal, std::vector<CHANGE> I_vecChanges)
{
    const JOURNAL sOld = ReadJournal(I_sPlace);
    CheckUnchanged(I_sPlace, I_vecChanges);
    RefuseClosed(I_sPlace);
    for (CHANGE &sChange : I_vecChanges) Note(I_sPlace, I_sJournal, sChange);
    auto sNext = I_vecChanges.cbegin();
    try
    {
        WriteJournal(I_sPlace, I_sJournal);
        while (sNext != I_vecChanges.cend())
        {
            const CHANGE &sChange = *sNext++; // it counts when it fails, too
            if (!sChange.strCopy.empty()) I_sPlace.KeepCopy(sChange.strFile, sChange.strCopy);
            I_sPlace.Write(sChange.strFile, sChange.strAfter);
        }
    } catch (const base::FAILURE &)
    {
        while (sNext != I_vecChanges.cbegin()) TakeBack(I_sPlace, *--sNext);
        WriteJournal(I_sPlace, sOld);
        throw;
    }
}

// What all onconfigs of the folder share stays while another of them is hooked.
std::vector<UNDO> PlanUndo(const PLACE &I_sPlace, JOURNAL &X_sJournal)
{
    std::vector<RECORD> vecRest;
    std::vector<RECORD> vecShared;
    std::vector<UNDO> vecUndo;
    for (const RECORD &sRecord : X_sJournal.vecRecords)
        if (sRecord.strFile == I_sPlace.strOnconfig)
            vecUndo.push_back(PlanRecord(I_sPlace, X_sJournal, sRecord));
        else (IsShared(sRecord.strFile) ? vecShared : vecRest).push_back(sRecord);
    if (!vecRest.empty()) vecRest.insert(vecRest.end(), vecShared.begin(), vecShared.end());
    else
        for (const RECORD &sRecord : vecShared)
            vecUndo.push_back(PlanRecord(I_sPlace, X_sJournal, sRecord));
    X_sJournal.vecRecords = vecRest;
    return vecUndo;
}

void Undo(const PLACE &I_sPlace, const JOURNAL &I_sRest, const std::vector<UNDO> &I_vecUndo)
{
    RefuseClosed(I_sPlace);
    for (const UNDO &sUndo : I_vecUndo)
    {
        const RECORD &sRecord = sUndo.sRecord;
        const bool bCopy = !sRecord.strCopy.empty();
        if (sUndo.strText) I_sPlace.Write(sRecord.strFile, *sUndo.strText);
        else if (sUndo.bPutBack && bCopy) I_sPlace.MoveBack(sRecord.strCopy, sRecord.strFile);
        else if (sUndo.bPutBack) I_sPlace.Remove(sRecord.strFile);
        else if (bCopy) I_sPlace.Remove(sRecord.strCopy);
    }
    WriteJournal(I_sPlace, I_sRest);
}
} // namespace setup
