// Where the bytes of an object come from and go to. All failures throw FAILURE.
#ifndef XBSACTL_FILES_H
#define XBSACTL_FILES_H

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <string>

// Keeps the numbers 0 to 2 from being given to a file or socket when the caller closed them. The
// stand-ins fail every read or write, so that a closed standard output stays a failure.
void files_ReserveStandard();

// The path in quotes, for a message.
std::string files_Quoted(const std::string &I_strFile);

std::string files_FolderOf(const std::string &I_strFile);

// A link is followed: the file behind it is what is replaced.
std::string files_Resolve(const std::string &I_strFile);

// Makes a rename in the folder last.
void files_SyncFolder(const std::string &I_strFolder);

// What the umask leaves of rw-rw-rw-. The first call is the main thread's.
mode_t files_NewFileMode();

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

// A file appears under its name when it is whole: until Commit its bytes are in a temporary file
// beside it, which goes when the object does or when the process is told to stop.
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
    void OpenTemporary();
    void Sync() const;
    void TakeMode() const;
    void Close();

    std::string strName;
    std::string strTarget; // empty: bytes go straight to a device, a pipe or standard output
    std::string strTemporary;
    struct stat sOld
    {
    }; // of the file in the target's place
    bool bOld = false;
    int iFile = 1;
};

#endif
