// Where the bytes of an object come from and go to. All failures throw FAILURE.
#ifndef XBSACTL_FILES_H
#define XBSACTL_FILES_H

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "base/target.h"

namespace base
{
// Keeps the numbers 0 to 2 from being given to a file or socket when the caller closed them. The
// stand-ins fail every read or write, so that a closed standard output stays a failure.
void ReserveStandard();

// The path in quotes, for a message.
std::string Quoted(const std::string &I_strFile);

// What the umask leaves of rw-rw-rw-. The first call is the main thread's.
mode_t NewFileMode();

class CInput
{
  public:
    explicit CInput(const std::string &I_strFile); // "-": standard input
    CInput(const CInput &) = delete;
    CInput &operator=(const CInput &) = delete;
    ~CInput();

    // Fills the buffer; fewer bytes than asked for are the end.
    size_t Read(char *cpData, size_t I_uRoom);

    uint64_t Size() const; // of a regular file; 0 for others

  private:
    std::string strName;
    int iFile = 0;
    uint64_t uSize = 0;
    uint64_t uDone = 0;
};

// The one way in which the tool replaces a file: what is written goes to a temporary file beside
// it, which takes its place, owner and mode when all of it is on disk. Until Publish the old file
// is untouched; the temporary file goes with the object.
class CReplacement
{
  public:
    // What is not a regular file is refused. I_bExact: so is a file whose owner cannot be kept.
    CReplacement(const TARGET &I_sTarget, bool I_bExact);
    CReplacement(const CReplacement &) = delete;
    CReplacement &operator=(const CReplacement &) = delete;
    ~CReplacement();

    void Write(const char *cpData, size_t I_uLength);
    void Finish();  // to the disk
    void Publish(); // under its name; the folder is not synced yet

    const std::string &Temporary() const // its name in the target's folder
    {
        return strTemporary;
    }

  private:
    void TakeMode() const;

    TARGET sTarget;
    std::optional<struct stat> sOld; // of the file in the target's place
    bool bExact;
    CDescriptor sFile;
    std::string strTemporary; // empty: it has its name
};

// Where a restore goes: a file is replaced, and its temporary file goes also when the process is
// told to stop; a device, a pipe or standard output gets the bytes as they come.
class COutput
{
  public:
    explicit COutput(const std::string &I_strFile); // "-": standard output
    COutput(const COutput &) = delete;
    COutput &operator=(const COutput &) = delete;
    ~COutput();

    void Write(const char *cpData, size_t I_uLength);
    void Commit(); // everything is on disk afterwards

  private:
    void OpenDevice();

    std::optional<TARGET> sTarget; // none: standard output
    std::optional<CReplacement> sReplacement;
    CDescriptor sDevice;
};
} // namespace base

#endif
