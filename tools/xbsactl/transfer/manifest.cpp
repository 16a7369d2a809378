#include "transfer/manifest.h"

#include <fcntl.h>
#include <sys/file.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <limits>

#include "transfer/transfer.h"

namespace transfer
{
namespace
{
constexpr size_t DIGEST_LENGTH = 64;
constexpr const char *COPY_ID = "# copy id "; // a comment for sha256sum, above the entry

// One line of the file, an entry's with the comment that belongs to it.
struct LINE
{
    std::string strText;
    bool bEntry = false;
    MANIFEST_ENTRY sEntry;
};

// Holds the file against other writers. It is replaced as a whole, so what was locked may have
// been an earlier file by then.
class CLock
{
  public:
    explicit CLock(const base::TARGET &I_sTarget)
    {
        while (!Take(I_sTarget))
        {
        }
    }

  private:
    bool Take(const base::TARGET &I_sTarget)
    {
        sFile = base::CDescriptor(I_sTarget.Open(O_RDWR | O_CREAT, 0666));
        if (sFile.Get() == -1) throw base::SystemFailure("manifest " + I_sTarget.strShown);
        int iLocked = -1;
        while ((iLocked = flock(sFile.Get(), LOCK_EX)) != 0 && errno == EINTR)
        {
        }
        if (iLocked != 0) throw base::SystemFailure("locking manifest " + I_sTarget.strShown);
        struct stat sLocked
        {
        };
        const std::optional<struct stat> sNow = I_sTarget.Status();
        return fstat(sFile.Get(), &sLocked) == 0 && sNow && sLocked.st_dev == sNow->st_dev &&
               sLocked.st_ino == sNow->st_ino;
    }

    base::CDescriptor sFile;
};

// What sha256sum writes for a name that would break its line, and back.
constexpr struct
{
    char cPlain;
    char cLetter;
} ESCAPES[] = {{'\\', '\\'}, {'\n', 'n'}, {'\r', 'r'}};

std::string EntryLine(const MANIFEST_ENTRY &I_sEntry)
{
    std::string strName;
    bool bEscaped = false;
    for (const char cChar : I_sEntry.strName)
    {
        const auto *spEscape = std::find_if(std::begin(ESCAPES), std::end(ESCAPES),
                                            [&](const auto &s) { return s.cPlain == cChar; });
        const bool bFound = spEscape != std::end(ESCAPES);
        strName += bFound ? std::string{'\\', spEscape->cLetter} : std::string{cChar};
        bEscaped = bEscaped || bFound;
    }
    return (bEscaped ? "\\" : "") + I_sEntry.strDigest + "  " + strName;
}

// False when a backslash stands before nothing that sha256sum puts there.
bool Unescape(std::string &I_strName)
{
    std::string strPlain;
    for (size_t uAt = 0; uAt < I_strName.size(); uAt++)
    {
        if (I_strName[uAt] != '\\')
        {
            strPlain += I_strName[uAt];
            continue;
        }
        uAt++;
        const auto *spEscape =
            std::find_if(std::begin(ESCAPES), std::end(ESCAPES), [&](const auto &s) {
                return uAt < I_strName.size() && s.cLetter == I_strName[uAt];
            });
        if (spEscape == std::end(ESCAPES)) return false;
        strPlain += spEscape->cPlain;
    }
    I_strName = strPlain;
    return true;
}

// "DIGEST  NAME" or "DIGEST *NAME", with a backslash before it when the name has escapes.
bool ParseEntry(const std::string &I_strLine, MANIFEST_ENTRY &I_sEntry)
{
    const bool bEscaped = !I_strLine.empty() && I_strLine[0] == '\\';
    const std::string strLine = I_strLine.substr(bEscaped ? 1 : 0);
    if (strLine.size() < DIGEST_LENGTH + 3 || strLine[DIGEST_LENGTH] != ' ') return false;
    const char cMode = strLine[DIGEST_LENGTH + 1];
    if (cMode != ' ' && cMode != '*') return false;

    I_sEntry.strDigest = strLine.substr(0, DIGEST_LENGTH);
    for (char &cDigit : I_sEntry.strDigest)
    {
        if (isxdigit(static_cast<unsigned char>(cDigit)) == 0) return false;
        cDigit = static_cast<char>(tolower(static_cast<unsigned char>(cDigit)));
    }
    I_sEntry.strName = strLine.substr(DIGEST_LENGTH + 2);
    return !bEscaped || Unescape(I_sEntry.strName);
}

// 0 when the comment is another one.
unsigned CopyIdOf(const std::string &I_strComment)
{
    const std::string strMark = COPY_ID;
    if (I_strComment.compare(0, strMark.size(), strMark) != 0) return 0;
    const std::string strNumber = I_strComment.substr(strMark.size());
    if (strNumber.empty() || strNumber.size() > 10 ||
        strNumber.find_first_not_of("0123456789") != std::string::npos)
        return 0;
    const unsigned long long uNumber = std::stoull(strNumber);
    return uNumber <= std::numeric_limits<unsigned>::max() ? static_cast<unsigned>(uNumber) : 0;
}

std::vector<std::string> SplitLines(const std::string &I_strText)
{
    std::vector<std::string> vecLines;
    size_t uAt = 0;
    while (uAt < I_strText.size())
    {
        const size_t uEnd = std::min(I_strText.find('\n', uAt), I_strText.size());
        vecLines.push_back(I_strText.substr(uAt, uEnd - uAt));
        uAt = uEnd + 1;
    }
    return vecLines;
}

// Anything but entries and comments is refused: the file may be another one, given by mistake.
std::vector<LINE> Parse(const base::TARGET &I_sTarget, const std::string &I_strText)
{
    std::vector<LINE> vecLines;
    size_t uNumber = 0;
    for (const std::string &strText : SplitLines(I_strText))
    {
        uNumber++;
        const bool bOfCopy =
            !vecLines.empty() && !vecLines.back().bEntry && CopyIdOf(vecLines.back().strText) != 0;
        LINE sLine;
        sLine.strText = strText;
        sLine.bEntry = ParseEntry(strText, sLine.sEntry);
        const bool bDosEnd = !strText.empty() && strText.back() == '\r';
        if (bDosEnd || (!sLine.bEntry && strText.compare(0, 1, "#") != 0))
            throw base::FAILURE("manifest " + I_sTarget.strShown + ", line " +
                                std::to_string(uNumber) +
                                (bDosEnd ? ": ends with CR LF; sha256sum's lines end with LF alone"
                                         : ": is not of sha256sum's format"));
        if (sLine.bEntry && bOfCopy)
        {
            sLine.sEntry.uCopyId = CopyIdOf(vecLines.back().strText);
            sLine.strText.insert(0, vecLines.back().strText + "\n");
            vecLines.pop_back();
        }
        vecLines.push_back(sLine);
    }
    return vecLines;
}

std::vector<LINE> ReadLines(const base::TARGET &I_sTarget)
{
    const std::optional<std::string> strText = base::ReadText(I_sTarget, base::TEXT_LARGEST);
    if (!strText) throw base::FAILURE("manifest " + I_sTarget.strShown + " does not exist");
    return Parse(I_sTarget, *strText);
}

void WriteLines(const base::TARGET &I_sTarget, const std::vector<LINE> &I_vecLines)
{
    std::string strText;
    for (const LINE &sLine : I_vecLines) strText += sLine.strText + "\n";
    const base::STOP_LOCK sLock; // no stop while there is a temporary file
    base::ReplaceText(I_sTarget, strText, false);
}
} // namespace

std::string ManifestName(const base::CONNECTION &I_sConnection, const library::OBJECT &I_sObject)
{
    return I_sConnection.bInformix ? I_sObject.strSpace + "@" + I_sObject.strName
                                   : I_sObject.strName;
}

std::vector<MANIFEST_ENTRY> ReadManifest(const std::string &I_strFile)
{
    std::vector<MANIFEST_ENTRY> vecEntries;
    for (const LINE &sLine : ReadLines(base::FindTarget(I_strFile)))
        if (sLine.bEntry) vecEntries.push_back(sLine.sEntry);
    return vecEntries;
}

void PrepareManifest(const std::string &I_strFile)
{
    const base::TARGET sTarget = base::FindTarget(I_strFile);
    const CLock sLock(sTarget);
    WriteLines(sTarget, ReadLines(sTarget)); // the same once more: all of it works
}

void PutIntoManifest(const std::string &I_strFile, const MANIFEST_ENTRY &I_sEntry)
{
    const base::TARGET sTarget = base::FindTarget(I_strFile);
    const CLock sLock(sTarget);
    std::vector<LINE> vecLines = ReadLines(sTarget);
    vecLines.erase(std::remove_if(vecLines.begin(), vecLines.end(),
                                  [&](const LINE &sLine) {
                                      return sLine.bEntry &&
                                             sLine.sEntry.strName == I_sEntry.strName;
                                  }),
                   vecLines.end());
    LINE sLine;
    if (I_sEntry.uCopyId != 0) sLine.strText = COPY_ID + std::to_string(I_sEntry.uCopyId) + "\n";
    sLine.strText += EntryLine(I_sEntry);
    vecLines.push_back(sLine);
    WriteLines(sTarget, vecLines);
}
} // namespace transfer
