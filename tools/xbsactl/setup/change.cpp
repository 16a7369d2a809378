// Changes files so that the changes can be reverted: a copy of the old file stays beside the new
// one, and a journal lists what was done.
#include <fcntl.h>

#include <algorithm>

#include "setup/parts.h"

namespace setup
{
namespace
{
constexpr const char *EDITED = "edited";                // no content has this hash
constexpr const char *LOGROTATE = "etc/xbsa.logrotate"; // earlier versions created it
constexpr int MOST_COPIES = 99;

// Whether all onconfigs of a directory share the file.
bool IsShared(const std::string &I_strFile)
{
    return I_strFile == LINK || I_strFile == VERSIONS || I_strFile == LOGROTATE;
}

// An earlier copy is never overwritten.
std::string FreeCopyName(const PLACE &I_sPlace, const std::string &I_strFile)
{
    std::string strCopy = I_strFile + COPY_END;
    for (int iNumber = 2; I_sPlace.At(strCopy).Status(); iNumber++)
    {
        if (iNumber > MOST_COPIES)
            throw base::FileFailure(I_sPlace.Path(I_strFile),
                                    ": too many old copies in its directory");
        strCopy = base::Text(I_strFile, COPY_END, '.', iNumber);
    }
    return strCopy;
}

// Updates the journal for a change, and names the copy that it needs.
void Note(const PLACE &I_sPlace, JOURNAL &X_sJournal, CHANGE &X_sChange)
{
    const std::string strBefore = HashOf(X_sChange.strBefore);
    const std::string strAfter = HashOf(X_sChange.strAfter);
    auto &vecRecords = X_sJournal.vecRecords;
    const auto spRecord = std::ranges::find(vecRecords, X_sChange.strFile, &RECORD::strFile);
    if (spRecord == vecRecords.end())
    {
        if (X_sChange.strBefore) X_sChange.strCopy = FreeCopyName(I_sPlace, X_sChange.strFile);
        vecRecords.push_back({X_sChange.strFile, X_sChange.strCopy, strBefore, strAfter});
        return;
    }
    const bool bFresh = strBefore == spRecord->strBefore; // a run was killed, or reverted by hand
    spRecord->strAfter = bFresh || strBefore == spRecord->strAfter ? strAfter : EDITED;
    if (bFresh && X_sChange.strBefore && !I_sPlace.At(spRecord->strCopy).Status())
        X_sChange.strCopy = spRecord->strCopy;
}

void TakeBack(const PLACE &I_sPlace, const CHANGE &I_sChange)
{
    const auto &[strFile, strBefore, strAfter, strCopy] = I_sChange;
    if (strCopy.empty() && strBefore) I_sPlace.Write(strFile, *strBefore);
    else if (strCopy.empty()) I_sPlace.Remove(strFile);
    else if (I_sPlace.At(strCopy).Status()) I_sPlace.Move(strCopy, strFile);
}

void RefuseClosed(const PLACE &I_sPlace)
{
    if (faccessat(I_sPlace.spEtc->Get(), ".", W_OK | X_OK, AT_EACCESS) == 0) return;
    throw base::FileFailure(
        I_sPlace.Path("etc"),
        ": this account may not write there: run setup as the directory's owner "
        "or as root; nothing was changed");
}

// The user may have taken a while to answer the prompt. A file of another account cannot be kept as
// a copy, and replacing it would change its owner.
void CheckUnchanged(const PLACE &I_sPlace, const CHANGE &I_sChange)
{
    const std::string strPath = I_sPlace.Path(I_sChange.strFile);
    const std::optional<struct stat> sStatus = I_sPlace.At(I_sChange.strFile).Status();
    if (geteuid() != 0 && sStatus && sStatus->st_uid != geteuid())
        throw base::FileFailure(strPath, " belongs to account ", sStatus->st_uid,
                                ", and setup runs as ", geteuid(), ": ",
                                I_sChange.strFile == I_sPlace.strOnconfig
                                    ? "run setup as its owner, or as root"
                                    : "give it the onconfig's owner first",
                                "; nothing was changed");
    if (I_sPlace.Content(I_sChange.strFile) != I_sChange.strBefore)
        throw base::FileFailure(strPath, " was changed by another program: run setup again");
}

// An edited file keeps what others wrote: only our lines are removed.
UNDO PlanEdited(const PLACE &I_sPlace, const JOURNAL &I_sJournal, const RECORD &I_sRecord,
                const std::string &I_strText)
{
    const std::string &strFile = I_sRecord.strFile;
    const std::string &strCopy = I_sRecord.strCopy;
    std::optional<std::string> strNew;
    std::string strKept;
    std::string strWhy = " was changed since setup";
    try
    {
        if (strFile == VERSIONS) strNew = VersionsWithout(I_strText, I_sJournal.strRow);
        else if (!IsShared(strFile))
            strNew = OnconfigWithout(I_strText, I_sJournal.strLibrary, strKept);
    } catch (const base::FAILURE &sFailure)
    {
        strWhy = std::string(": ") + sFailure.what();
    }
    if (!strNew)
        throw base::FileFailure(I_sPlace.Path(strFile), strWhy, ": correct it by hand first",
                                strCopy.empty() ? ""
                                                : "; the old file is " + I_sPlace.Path(strCopy));
    std::string strText = "changed since setup, only the lines of setup are removed";
    if (!strCopy.empty()) strText += "; the old file is kept in " + base::Printable(strCopy);
    if (!strKept.empty())
        strText += "\n  \"" + base::Printable(strKept) + "\" was edited since, and is kept";
    return {strFile, strText, [=, &I_sPlace] { I_sPlace.Write(strFile, *strNew); }};
}

UNDO PlanRecord(const PLACE &I_sPlace, const JOURNAL &I_sJournal, const RECORD &I_sRecord)
{
    const std::string &strFile = I_sRecord.strFile;
    const std::string &strCopy = I_sRecord.strCopy;
    const std::optional<std::string> strText = I_sPlace.Content(strFile);
    const std::string strNow = HashOf(strText);
    if (strNow == I_sRecord.strBefore)
        return {strFile, "is unchanged", [=, &I_sPlace] { I_sPlace.Remove(strCopy); }};
    if (!strText) throw base::FileFailure(I_sPlace.Path(strFile), " was removed since setup");
    if (strNow != I_sRecord.strAfter) return PlanEdited(I_sPlace, I_sJournal, I_sRecord, *strText);
    if (strCopy.empty()) return {strFile, "removed", [=, &I_sPlace] { I_sPlace.Remove(strFile); }};
    if (HashOf(I_sPlace.Content(strCopy)) != I_sRecord.strBefore)
        throw base::FileFailure(I_sPlace.Path(strCopy),
                                ": this copy of the old file is missing or was changed");
    return {strFile, "restored", [=, &I_sPlace] { I_sPlace.Move(strCopy, strFile); }};
}
} // namespace

// The journal is written first, so that a killed run can be undone: files that it did not reach are
// unchanged.
void Apply(const PLACE &I_sPlace, JOURNAL I_sJournal, std::vector<CHANGE> I_vecChanges)
{
    const JOURNAL sOld = ReadJournal(I_sPlace);
    for (const CHANGE &sChange : I_vecChanges) CheckUnchanged(I_sPlace, sChange);
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

// What all onconfigs of the directory share stays while another one is still hooked in.
std::vector<UNDO> PlanUndo(const PLACE &I_sPlace, JOURNAL &X_sJournal)
{
    auto &vecRecords = X_sJournal.vecRecords;
    const std::string &strOwn = I_sPlace.strOnconfig;
    const auto fpOwn = [&](const RECORD &sRecord) { return sRecord.strFile == strOwn; };
    const bool bLast = std::ranges::all_of(vecRecords, [&](const RECORD &sRecord) {
        return fpOwn(sRecord) || IsShared(sRecord.strFile);
    });
    const auto sRest = std::stable_partition(vecRecords.begin(), vecRecords.end(), fpOwn);
    const auto sEnd = bLast ? vecRecords.end() : sRest;
    std::vector<UNDO> vecUndo;
    for (auto sRecord = vecRecords.begin(); sRecord != sEnd; ++sRecord)
        vecUndo.push_back(PlanRecord(I_sPlace, X_sJournal, *sRecord));
    vecRecords.erase(vecRecords.begin(), sEnd);
    return vecUndo;
}

void Undo(const PLACE &I_sPlace, const JOURNAL &I_sRest, const std::vector<UNDO> &I_vecUndo)
{
    RefuseClosed(I_sPlace);
    for (const UNDO &sUndo : I_vecUndo) sUndo.fpUndo();
    WriteJournal(I_sPlace, I_sRest);
}
} // namespace setup
