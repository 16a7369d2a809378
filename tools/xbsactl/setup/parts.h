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
constexpr const char *COPY_END = ".before-xbsa"; // of a copy's name, before its number
constexpr off_t LARGEST = 1 << 20;               // bytes of an onconfig and the like

using FOLDER = std::shared_ptr<const base::CDescriptor>;

// A database's folder, and the account that its files belong to. Files are named by their path below
// the folder: all are in etc, but for the link in lib. Nothing outside of the folder is touched.
struct PLACE
{
    std::string strFolder;   // absolute
    std::string strOnconfig; // below it
    FOLDER spEtc;            // both are held open: what is swapped on the way
    FOLDER spLib;            // changes nothing. Null: there is no lib
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

    // The file, or the target of a link; nothing when it does not exist. What is not a link in lib
    // is refused when it is one: what it leads to is another's.
    std::optional<std::string> Content(const std::string &I_strFile,
                                       off_t I_iLargest = LARGEST) const;

    // Replaced as a whole, with owner, group and mode kept. A link, when it is the one in lib.
    void Write(const std::string &I_strFile, const std::string &I_strText) const;
    void Remove(const std::string &I_strFile) const; // none, or gone already: nothing

    // A copy is a second name of the file; one name takes the place of another.
    void KeepCopy(const std::string &I_strFile, const std::string &I_strCopy) const;
    void Move(const std::string &I_strFrom, const std::string &I_strTo) const;
};

// Finds the files and becomes the account that owns the onconfig, for good, when root runs: what it
// does not own is not written, and whatever it puts in the way is met with its own rights. Throws
// USAGE_ERROR, too.
PLACE Enter(const OPTIONS &I_sOptions);

// Whether the link belongs there. Prints a line when it cannot be made: the onconfig names the
// library, so that it is a convenience.
bool MayWriteLib(const PLACE &I_sPlace);

// The text for logrotate. Nothing of it comes from a file that the folder's owner can write.
std::string Rotation(const OPTIONS &I_sOptions);

std::string HashOf(const std::optional<std::string> &I_strContent); // empty for nothing

// A file that an earlier run changed. Contents are kept as SHA-256.
struct RECORD
{
    std::string strFile;
    std::string strCopy;   // the old file; empty: there was none
    std::string strBefore; // empty: there was none
    std::string strAfter;  // or a text that no content has: edited since
};

// What setup changed in the folder, so that it can be put back.
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
// it says the same already.
std::string OnconfigWith(const std::string &I_strText, const std::string &I_strLibrary);

// The onconfig without our lines, and with what they replaced. A path of the library other than
// I_strLibrary (empty: any) was edited: its line stays, and is X_strKept. Throws when our lines were
// edited otherwise, or are contradicted outside of them: nobody knows what the reader wants.
std::string OnconfigWithout(const std::string &I_strText, const std::string &I_strLibrary,
                            std::string &X_strKept);

// sm_versions with our row, and without it.
std::string VersionsWith(const std::string &I_strText, const std::string &I_strRow);
std::string VersionsWithout(const std::string &I_strText, const std::string &I_strRow);
} // namespace setup

#endif
