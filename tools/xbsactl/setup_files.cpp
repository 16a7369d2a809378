#include "setup_files.h"

#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "errors.h"
#include "files.h"
#include "setup_text.h"

namespace
{
constexpr const char *JOURNAL_FILE = "etc/xbsa-setup.json";
constexpr const char *COPY_END = ".before-xbsa";
constexpr const char *EDITED = "edited"; // no content has this hash
constexpr const char *VERSIONS = "etc/sm_versions";
constexpr int MOST_COPIES = 99;

std::string Path(const PLACE &I_sPlace, const std::string &I_strFile)
{
    return I_sPlace.strFolder + "/" + I_strFile;
}

bool Exists(const std::string &I_strPath)
{
    struct stat sStat
    {
    };
    return lstat(I_strPath.c_str(), &sStat) == 0;
}

std::string ReadFile(const std::string &I_strPath)
{
    std::ifstream sFile(I_strPath, std::ios::binary);
    std::ostringstream sText;
    if (sFile.is_open() && sFile.peek() != std::ifstream::traits_type::eof())
        sText << sFile.rdbuf();
    if (!sFile.is_open() || sFile.bad()) throw SystemFailure("reading " + I_strPath);
    return sText.str();
}

std::string ReadTarget(const std::string &I_strPath)
{
    std::array<char, PATH_MAX> szTarget{};
    const ssize_t iLength = readlink(I_strPath.c_str(), szTarget.data(), szTarget.size());
    if (iLength == -1) throw SystemFailure("reading " + I_strPath);
    return std::string(szTarget.data(), static_cast<size_t>(iLength));
}

bool IsShared(const std::string &I_strFile)
{
    return I_strFile.compare(0, 4, "lib/") == 0 || I_strFile == VERSIONS ||
           I_strFile == "etc/xbsa.logrotate";
}

bool IsLink(const std::string &I_strFile)
{
    return I_strFile.compare(0, 4, "lib/") == 0;
}

std::string Hash(const PLACE &I_sPlace, const std::string &I_strFile, bool I_bLink)
{
    const std::optional<std::string> strContent = setupfiles_Content(I_sPlace, I_strFile, I_bLink);
    return strContent ? setupfiles_Hash(*strContent) : "";
}

// An earlier copy is never overwritten.
std::string FreeCopyName(const PLACE &I_sPlace, const std::string &I_strFile)
{
    for (int iNumber = 1; iNumber <= MOST_COPIES; iNumber++)
    {
        const std::string strNumber = iNumber == 1 ? "" : "." + std::to_string(iNumber);
        std::string strCopy = I_strFile + COPY_END + strNumber;
        if (!Exists(Path(I_sPlace, strCopy))) return strCopy;
    }
    throw FAILURE(Path(I_sPlace, I_strFile) + ": too many old copies beside it");
}

void WriteFile(const PLACE &I_sPlace, const std::string &I_strFile, const std::string &I_strText)
{
    const std::string strPath = Path(I_sPlace, I_strFile);
    struct stat sOld
    {
    };
    struct stat sNew
    {
    };
    const bool bOld = lstat(strPath.c_str(), &sOld) == 0;
    COutput sOutput(strPath);
    sOutput.Write(I_strText.data(), I_strText.size());
    sOutput.Commit();
    if (!bOld && lchown(strPath.c_str(), I_sPlace.uOwner, I_sPlace.uGroup) != 0)
        throw SystemFailure("giving " + strPath + " to the database's account");
    if (lstat(strPath.c_str(), &sNew) != 0) throw SystemFailure(strPath);
    if (bOld &&
        (sNew.st_uid != sOld.st_uid || sNew.st_gid != sOld.st_gid || sNew.st_mode != sOld.st_mode))
        throw FAILURE(strPath + ": this account cannot keep its owner, group and mode");
}

void WriteLink(const PLACE &I_sPlace, const std::string &I_strFile, const std::string &I_strTarget)
{
    const std::string strPath = Path(I_sPlace, I_strFile);
    const std::string strTemporary = strPath + ".xbsactl";
    unlink(strTemporary.c_str()); // of a run that was killed
    if (symlink(I_strTarget.c_str(), strTemporary.c_str()) != 0) throw SystemFailure(strPath);
    const bool bDone = lchown(strTemporary.c_str(), I_sPlace.uOwner, I_sPlace.uGroup) == 0 &&
                       rename(strTemporary.c_str(), strPath.c_str()) == 0;
    if (bDone) return;
    const FAILURE sFailure = SystemFailure(strPath);
    unlink(strTemporary.c_str());
    throw sFailure;
}

void Remove(const std::string &I_strPath)
{
    if (unlink(I_strPath.c_str()) != 0 && errno != ENOENT) throw SystemFailure(I_strPath);
}

// A rename does nothing when both names are the same file still, so the copy's name goes by itself.
void MoveBack(const PLACE &I_sPlace, const std::string &I_strCopy, const std::string &I_strFile)
{
    const std::string strCopy = Path(I_sPlace, I_strCopy);
    const std::string strPath = Path(I_sPlace, I_strFile);
    if (rename(strCopy.c_str(), strPath.c_str()) != 0) throw SystemFailure(strPath);
    Remove(strCopy);
}

void WriteJournal(const PLACE &I_sPlace, const JOURNAL &I_sJournal)
{
    if (I_sJournal.vecRecords.empty())
    {
        Remove(Path(I_sPlace, JOURNAL_FILE));
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
    WriteFile(I_sPlace, JOURNAL_FILE, sJson.dump(2) + "\n");
}

// The journal may be another account's than the one that runs: it names files of ours only.
void CheckRecord(const RECORD &I_sRecord)
{
    const std::string &strFile = I_sRecord.strFile;
    const std::string &strCopy = I_sRecord.strCopy;
    const bool bFile = strFile == "lib/ibsad001.so" ||
                       (strFile.compare(0, 4, "etc/") == 0 && strFile.size() > 4 &&
                        strFile[4] != '.' && strFile.find('/', 4) == std::string::npos);
    const bool bCopy = strCopy.empty() || (strCopy.rfind(strFile + COPY_END, 0) == 0 &&
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

// Updates the journal for a change. Returns whether a copy is to be made.
bool Note(const PLACE &I_sPlace, JOURNAL &I_sJournal, const CHANGE &I_sChange)
{
    const std::string strBefore = I_sChange.strBefore ? setupfiles_Hash(*I_sChange.strBefore) : "";
    const std::string strAfter = setupfiles_Hash(I_sChange.strAfter);
    for (RECORD &sRecord : I_sJournal.vecRecords)
    {
        if (sRecord.strFile != I_sChange.strFile) continue;
        sRecord.strAfter = strBefore == sRecord.strAfter ? strAfter : EDITED;
        return false;
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
    const std::string strPath = Path(I_sPlace, sChange.strFile);
    if (!I_sStep.strCopy.empty() &&
        link(strPath.c_str(), Path(I_sPlace, I_sStep.strCopy).c_str()) != 0)
        throw SystemFailure("keeping a copy of " + strPath);
    if (sChange.bLink) WriteLink(I_sPlace, sChange.strFile, sChange.strAfter);
    else WriteFile(I_sPlace, sChange.strFile, sChange.strAfter);
}

void TakeBack(const PLACE &I_sPlace, const STEP &I_sStep)
{
    const CHANGE &sChange = I_sStep.sChange;
    if (!I_sStep.strCopy.empty())
    {
        if (Exists(Path(I_sPlace, I_sStep.strCopy)))
            MoveBack(I_sPlace, I_sStep.strCopy, sChange.strFile);
    }
    else if (!sChange.strBefore) Remove(Path(I_sPlace, sChange.strFile));
    else if (sChange.bLink) WriteLink(I_sPlace, sChange.strFile, *sChange.strBefore);
    else WriteFile(I_sPlace, sChange.strFile, *sChange.strBefore);
}

// The reader of the question may have taken a while to answer.
void CheckUnchanged(const PLACE &I_sPlace, const std::vector<CHANGE> &I_vecChanges)
{
    for (const CHANGE &sChange : I_vecChanges)
    {
        if (setupfiles_Content(I_sPlace, sChange.strFile, sChange.bLink) != sChange.strBefore)
            throw FAILURE(Path(I_sPlace, sChange.strFile) +
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
    const std::string strPath = Path(I_sPlace, I_sRecord.strFile);
    const std::string strCopy =
        I_sRecord.strCopy.empty() ? "" : "; the old file is " + Path(I_sPlace, I_sRecord.strCopy);
    if (I_sRecord.strFile == VERSIONS)
        return setuptext_VersionsWithout(I_strText, I_sJournal.strRow);
    if (IsShared(I_sRecord.strFile))
        throw FAILURE(strPath + " was changed since setup: put it right by hand first" + strCopy);
    try
    {
        return setuptext_OnconfigWithout(I_strText);
    } catch (const FAILURE &sFailure)
    {
        throw FAILURE(strPath + ": " + sFailure.what() + ": put it right by hand first" + strCopy);
    }
}

UNDO PlanRecord(const PLACE &I_sPlace, const JOURNAL &I_sJournal, const RECORD &I_sRecord)
{
    const bool bLink = IsLink(I_sRecord.strFile);
    const std::string strNow = Hash(I_sPlace, I_sRecord.strFile, bLink);
    UNDO sUndo;
    sUndo.sRecord = I_sRecord;
    if (strNow == I_sRecord.strBefore) return sUndo;
    if (strNow == I_sRecord.strAfter)
    {
        if (!I_sRecord.strCopy.empty() &&
            Hash(I_sPlace, I_sRecord.strCopy, bLink) != I_sRecord.strBefore)
            throw FAILURE(Path(I_sPlace, I_sRecord.strCopy) +
                          ": this copy of the old file is gone or was changed");
        sUndo.bPutBack = true;
        return sUndo;
    }
    const std::optional<std::string> strText =
        setupfiles_Content(I_sPlace, I_sRecord.strFile, bLink);
    if (!strText) throw FAILURE(Path(I_sPlace, I_sRecord.strFile) + " was removed since setup");
    sUndo.strText = WithoutOurs(I_sPlace, I_sJournal, I_sRecord, *strText);
    return sUndo;
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

std::optional<std::string> setupfiles_Content(const PLACE &I_sPlace, const std::string &I_strFile,
                                              bool I_bLink)
{
    const std::string strPath = Path(I_sPlace, I_strFile);
    struct stat sStat
    {
    };
    if (lstat(strPath.c_str(), &sStat) != 0)
    {
        if (errno == ENOENT) return std::nullopt;
        throw SystemFailure(strPath);
    }
    if (I_bLink && S_ISLNK(sStat.st_mode)) return ReadTarget(strPath);
    if (!S_ISREG(sStat.st_mode)) throw FAILURE(strPath + " is no plain file");
    return ReadFile(strPath);
}

std::string setupfiles_Hash(const std::string &I_strContent)
{
    std::array<unsigned char, EVP_MAX_MD_SIZE> ucHash{};
    unsigned uLength = 0;
    if (EVP_Digest(I_strContent.data(), I_strContent.size(), ucHash.data(), &uLength, EVP_sha256(),
                   nullptr) != 1)
        throw FAILURE("SHA-256 failed");
    static const char *const cpDigits = "0123456789abcdef";
    std::string strHash;
    for (unsigned uByte = 0; uByte < uLength; uByte++)
    {
        strHash += cpDigits[ucHash.at(uByte) >> 4];
        strHash += cpDigits[ucHash.at(uByte) & 15];
    }
    return strHash;
}

JOURNAL setupfiles_ReadJournal(const PLACE &I_sPlace)
{
    const std::optional<std::string> strText = setupfiles_Content(I_sPlace, JOURNAL_FILE, false);
    if (!strText) return {};
    try
    {
        return ParseJournal(*strText);
    } catch (const std::exception &sError)
    {
        throw FAILURE(Path(I_sPlace, JOURNAL_FILE) +
                      " cannot be used: " + Printable(sError.what()));
    }
}

// The journal is written first: a run that is killed can be undone, since what was not done yet
// shows as unchanged.
void setupfiles_Apply(const PLACE &I_sPlace, JOURNAL I_sJournal,
                      const std::vector<CHANGE> &I_vecChanges)
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
    } catch (const FAILURE &)
    {
        TakeAllBack(I_sPlace, sOld, vecDone);
        throw;
    }
}

// What all onconfigs of the folder share stays while another of them is hooked.
std::vector<UNDO> setupfiles_PlanUndo(const PLACE &I_sPlace, const JOURNAL &I_sJournal)
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

void setupfiles_Undo(const PLACE &I_sPlace, JOURNAL I_sJournal, const std::vector<UNDO> &I_vecUndo)
{
    for (const UNDO &sUndo : I_vecUndo)
    {
        const RECORD &sRecord = sUndo.sRecord;
        if (sUndo.strText) WriteFile(I_sPlace, sRecord.strFile, *sUndo.strText);
        else if (!sUndo.bPutBack)
        {
            if (!sRecord.strCopy.empty()) Remove(Path(I_sPlace, sRecord.strCopy));
        }
        else if (sRecord.strCopy.empty()) Remove(Path(I_sPlace, sRecord.strFile));
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
