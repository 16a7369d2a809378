#include <fcntl.h>
#include <sys/file.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <sstream>

#include "transfer/parts.h"

namespace transfer
{
namespace
{
constexpr size_t DIGEST_LENGTH = 64;
constexpr const char *DIGITS = "0123456789abcdefABCDEF";
constexpr const char *COPY_ID = "# copy id "; // a comment for sha256sum, above the entry

// What sha256sum writes, after a backslash, for a character that would break its line.
constexpr std::string_view PLAIN = "\\\n\r";
constexpr std::string_view LETTERS = "\\nr";

// One line of the file, an entry's with the comment that belongs to it.
struct LINE
{
    std::string strText;
    std::optional<MANIFEST_ENTRY> sEntry; // none: a comment
};

// Holds the file against other writers. It is replaced as a whole, so what was locked may have been
// an earlier file by then.
base::CDescriptor Lock(const base::TARGET &I_sTarget)
{
    struct stat sLocked = {};
    std::optional<struct stat> sNow;
    base::CDescriptor sFile;
    do
    {
        sFile = base::CDescriptor(I_sTarget.Open(O_RDWR | O_CREAT, 0666));
        if (sFile.Get() == -1) throw base::SystemFailure("manifest " + I_sTarget.strShown);
        if (TEMP_FAILURE_RETRY(flock(sFile.Get(), LOCK_EX)) != 0 ||
            fstat(sFile.Get(), &sLocked) != 0)
            throw base::SystemFailure("locking manifest " + I_sTarget.strShown);
        sNow = I_sTarget.Status();
    } while (!sNow || sLocked.st_dev != sNow->st_dev || sLocked.st_ino != sNow->st_ino);
    return sFile;
}

std::string EntryLine(const MANIFEST_ENTRY &I_sEntry)
{
    std::string strName;
    for (const char cChar : I_sEntry.strName)
    {
        const size_t uEscape = PLAIN.find(cChar);
        if (uEscape == std::string::npos) strName += cChar;
        else strName.append({'\\', LETTERS[uEscape]});
    }
    return (strName == I_sEntry.strName ? "" : "\\") + I_sEntry.strDigest + "  " + strName;
}

// None when a backslash is before anything that sha256sum does not put there.
std::optional<std::string> Unescaped(std::string_view I_svName)
{
    std::string strPlain;
    for (size_t uAt = 0; uAt < I_svName.size(); uAt++)
    {
        const bool bEscape = I_svName[uAt] == '\\';
        if (bEscape && ++uAt == I_svName.size()) return {};
        const size_t uLetter = LETTERS.find(I_svName[uAt]);
        if (bEscape && uLetter == std::string::npos) return {};
        strPlain += bEscape ? PLAIN[uLetter] : I_svName[uAt];
    }
    return strPlain;
}

// "DIGEST  NAME" or "DIGEST *NAME", with a backslash before it when the name has escapes.
std::optional<MANIFEST_ENTRY> ParseEntry(std::string_view I_svLine)
{
    const bool bEscaped = I_svLine.substr(0, 1) == "\\";
    if (bEscaped) I_svLine.remove_prefix(1);
    const std::string_view svMark = I_svLine.substr(std::min(DIGEST_LENGTH, I_svLine.size()), 2);
    if (I_svLine.size() < DIGEST_LENGTH + 3 || (svMark != "  " && svMark != " *")) return {};

    MANIFEST_ENTRY sEntry;
    sEntry.strDigest = I_svLine.substr(0, DIGEST_LENGTH);
    if (sEntry.strDigest.find_first_not_of(DIGITS) != std::string::npos) return {};
    for (char &cDigit : sEntry.strDigest) cDigit = static_cast<char>(cDigit | ' '); // lower case
    const std::string_view svName = I_svLine.substr(DIGEST_LENGTH + 2);
    const std::optional<std::string> strName =
        bEscaped ? Unescaped(svName) : std::optional<std::string>(svName);
    if (!strName) return {};
    sEntry.strName = *strName;
    return sEntry;
}

// 0 when the comment is another one.
unsigned CopyIdOf(const std::string &I_strComment)
{
    unsigned uNumber = 0;
    if (I_strComment.rfind(COPY_ID, 0) != 0) return 0;
    const char *cpEnd = I_strComment.data() + I_strComment.size();
    const auto sResult =
        std::from_chars(I_strComment.data() + std::string(COPY_ID).size(), cpEnd, uNumber);
    return sResult.ec == std::errc() && sResult.ptr == cpEnd ? uNumber : 0;
}

// Anything but entries and comments is refused: the file may be another one, given by mistake.
std::vector<LINE> ReadLines(const base::TARGET &I_sTarget)
{
    const std::optional<std::string> strText = base::ReadText(I_sTarget);
    if (!strText) throw base::FileFailure("manifest " + I_sTarget.strShown + " does not exist");
    std::vector<LINE> vecLines;
    std::istringstream sText(*strText);
    size_t uNumber = 0;
    for (std::string strLine; std::getline(sText, strLine);)
    {
        LINE sLine{strLine, ParseEntry(strLine)};
        const bool bDosEnd = !strLine.empty() && strLine.back() == '\r';
        uNumber++;
        if (bDosEnd || (!sLine.sEntry && strLine.compare(0, 1, "#") != 0))
            throw base::FileFailure(
                "manifest " + I_sTarget.strShown + ", line " + std::to_string(uNumber) +
                (bDosEnd ? ": ends with CR LF; sha256sum's lines end with LF alone"
                         : ": is not of sha256sum's format"));
        const bool bComment = !vecLines.empty() && !vecLines.back().sEntry;
        const unsigned uCopyId = bComment ? CopyIdOf(vecLines.back().strText) : 0;
        if (sLine.sEntry && uCopyId != 0)
        {
            sLine.sEntry->uCopyId = uCopyId;
            sLine.strText.insert(0, vecLines.back().strText + "\n");
            vecLines.pop_back();
        }
        vecLines.push_back(sLine);
    }
    return vecLines;
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
        if (sLine.sEntry) vecEntries.push_back(*sLine.sEntry);
    return vecEntries;
}

void PrepareManifest(const std::string &I_strFile)
{
    const base::TARGET sTarget = base::FindTarget(I_strFile);
    const base::CDescriptor sLock = Lock(sTarget);
    WriteLines(sTarget, ReadLines(sTarget)); // the same once more: all of it works
}

void PutIntoManifest(const std::string &I_strFile, const MANIFEST_ENTRY &I_sEntry)
{
    const base::TARGET sTarget = base::FindTarget(I_strFile);
    const base::CDescriptor sLock = Lock(sTarget);
    std::vector<LINE> vecLines = ReadLines(sTarget);
    const auto fpSame = [&](const LINE &sLine) {
        return sLine.sEntry && sLine.sEntry->strName == I_sEntry.strName;
    };
    vecLines.erase(std::remove_if(vecLines.begin(), vecLines.end(), fpSame), vecLines.end());
    const std::string strComment =
        I_sEntry.uCopyId != 0 ? COPY_ID + std::to_string(I_sEntry.uCopyId) + "\n" : "";
    vecLines.push_back({strComment + EntryLine(I_sEntry), I_sEntry});
    WriteLines(sTarget, vecLines);
}
} // namespace transfer
