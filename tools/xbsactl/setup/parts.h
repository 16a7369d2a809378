// What the parts of setup share. All of it throws FAILURE.
#ifndef XBSACTL_SETUP_PARTS_H
#define XBSACTL_SETUP_PARTS_H

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/base.h"
#include "setup/setup.h"

namespace setup
{
constexpr const char *VERSIONS = "etc/sm_versions";
constexpr const char *LINK = "lib/ibsad001.so";  // where ON-Bar looks without BAR_BSALIB_PATH
constexpr const char *COPY_END = ".before-xbsa"; // of a copy's name; a number may follow
constexpr off_t LARGEST = 1 << 20;               // bytes of an onconfig and the like

using FOLDER = std::shared_ptr<const base::CDescriptor>;

// A database's directory, and the account that its files belong to. Files are named by their path
// below the directory: all are in etc, except the link in lib. Nothing outside the directory is
// touched.
struct PLACE
{
    std::string strFolder;   // absolute
    std::string strOnconfig; // below it
    FOLDER spEtc;            // both are held open: a directory that is swapped
    FOLDER spLib;            // later has no effect. Null: there is no lib
    base::CDescriptor sLock; // against another run

    std::string Path(const std::string &I_strFile) const // for messages
    {
        return base::Printable(strFolder + "/" + I_strFile);
    }
    base::TARGET At(const std::string &I_strFile) const
    {
        return {I_strFile.starts_with("lib/") ? spLib : spEtc, I_strFile.substr(4),
                Path(I_strFile)};
    }

    // The file, or the target of the link in lib; nothing when it does not exist. Any other link is
    // refused: it may lead to somebody else's file.
    std::optional<std::string> Content(const std::string &I_strFile,
                                       off_t I_iLargest = LARGEST) const;

    // Replaces the file as a whole and keeps owner, group and mode. In lib it writes a link.
    void Write(const std::string &I_strFile, const std::string &I_strText) const;
    void Remove(const std::string &I_strFile) const; // not an error when it does not exist

    // A copy is a second name of the file; Move replaces one name by another.
    void KeepCopy(const std::string &I_strFile, const std::string &I_strCopy) const;
    void Move(const std::string &I_strFrom, const std::string &I_strTo) const;
};

// Finds the files. If root runs it, becomes the account that owns the onconfig, permanently: setup
// then writes only what that account owns, and traps that it sets work only with its own rights.
// Throws USAGE_ERROR, too.
PLACE Enter(const OPTIONS &I_sOptions);

// Whether setup may create the link. Prints a line if not: the onconfig names the library, so the
// link is only a convenience.
bool MayWriteLib(const PLACE &I_sPlace);

// The text for logrotate. None of it comes from a file that the directory's owner can write.
std::string Rotation(const OPTIONS &I_sOptions);

std::string HashOf(const std::optional<std::string> &I_strContent); // empty for nothing

// A file that an earlier run changed. Contents are kept as SHA-256.
struct RECORD
{
    std::string strFile;
    std::string strCopy;   // the old file; empty: there was none
    std::string strBefore; // empty: there was none
    std::string strAfter;  // or a text that cannot be a hash: edited since
};

// What setup changed in the directory, so that it can be reverted.
struct JOURNAL
{
    std::string strRow;     // of sm_versions
    std::string strLibrary; // in the onconfig; empty: an earlier version wrote the journal
    std::vector<RECORD> vecRecords;
};

JOURNAL ReadJournal(const PLACE &I_sPlace);
void WriteJournal(const PLACE &I_sPlace, const JOURNAL &I_sJournal); // without records: removed

struct CHANGE
{
    std::string strFile;
    std::optional<std::string> strBefore; // nothing: it does not exist
    std::string strAfter;
    std::string strCopy{}; // of the old file, made by Apply; empty for none
};

// Makes all of the changes or, when one fails, none.
void Apply(const PLACE &I_sPlace, JOURNAL I_sJournal, std::vector<CHANGE> I_vecChanges);

// What undoing one record means; planned for all before the first is done.
struct UNDO
{
    std::string strFile;
    std::string strText; // for the reader
    std::function<void()> fpUndo;
};

// Takes what can be undone out of the journal. Throws when a file was edited where we changed it.
std::vector<UNDO> PlanUndo(const PLACE &I_sPlace, JOURNAL &X_sJournal);
void Undo(const PLACE &I_sPlace, const JOURNAL &I_sRest, const std::vector<UNDO> &I_vecUndo);

// The onconfig with our lines at its end. Lines that they replace become comments. Unchanged when
// it already says the same.
std::string OnconfigWith(const std::string &I_strText, const std::string &I_strLibrary);

// The onconfig without our lines, and with what they replaced. A path of the library other than
// I_strLibrary (empty: any) was edited: its line stays, and is X_strKept. Throws when our lines
// were edited otherwise, or are contradicted elsewhere: then it is unclear what the user wants.
std::string OnconfigWithout(const std::string &I_strText, const std::string &I_strLibrary,
                            std::string &X_strKept);

// sm_versions with our row, and without it.
std::string VersionsWith(const std::string &I_strText, const std::string &I_strRow);
std::string VersionsWithout(const std::string &I_strText, const std::string &I_strRow);
} // namespace setup

#endif
