#include <fcntl.h>
#include <sys/file.h>

#include <cerrno>
#include <charconv>

#include "transfer/parts.h"

namespace transfer
{
namespace
{
constexpr size_t DIGEST_LENGTH = 64;
constexpr const char *DIGITS = "0123456789abcdefABCDEF";
constexpr std::string_view COPY_ID = "# copy id "; // a comment for sha256sum, above the entry

// Locks the file against other writers. They replace the file as a whole, so the locked one may
// already be an earlier file.
base::CDescriptor Lock(const base::TARGET &I_sTarget)
{
    for (;;)
    {
        base::CDescriptor sFile(I_sTarget.Open(O_RDWR | O_CREAT, 0666));
        if (sFile.Get() == -1) throw base::SystemFailure("manifest ", I_sTarget.strShown);
        if (TEMP_FAILURE_RETRY(flock(sFile.Get(), LOCK_EX)) != 0)
            throw base::SystemFailure("locking manifest ", I_sTarget.strShown);
        const struct stat sLocked = sFile.Status(I_sTarget.strShown);
        const std::optional<struct stat> sNow = I_sTarget.Status();
        if (sNow && sLocked.st_dev == sNow->st_dev && sLocked.st_ino == sNow->st_ino) return sFile;
    }
}

// An object's name contains no line end, which sha256sum would write differently.
std::string EntryText(const MANIFEST_ENTRY &I_sEntry)
{
    std::string strName;
    for (const char cChar : I_sEntry.strName) strName.append(cChar == '\\' ? 2 : 1, cChar);
    const std::string strCopy =
        I_sEntry.uCopyId != 0 ? base::Text(COPY_ID, I_sEntry.uCopyId, '\n') : "";
    const char *cpMark = strName == I_sEntry.strName ? "" : "\\";
    return base::Text(strCopy, cpMark, I_sEntry.strDigest, "  ", strName, '\n');
}

// None when a backslash precedes a character that sha256sum does not escape.
std::optional<std::string> Unescaped(const std::string &I_strName)
{
    std::string strPlain;
    for (size_t uAt = 0; uAt < I_strName.size(); uAt++)
    {
        const bool bEscape = I_strName[uAt] == '\\';
        const size_t uLetter = bEscape ? std::string_view("\\nr").find(I_strName[++uAt]) : 0;
        if (uLetter == std::string::npos) return {};
        strPlain += bEscape ? "\\\n\r"[uLetter] : I_strName[uAt];
    }
    return strPlain;
}

// 0 when the comment is a different one.
unsigned CopyIdOf(const std::string &I_strComment)
{
    unsigned uNumber = 0; // remains 0 when the text is not a number, or too large
    if (!I_strComment.starts_with(COPY_ID)) return 0;
    const char *cpEnd = I_strComment.data() + I_strComment.size();
    const auto sResult = std::from_chars(&I_strComment[COPY_ID.size()], cpEnd, uNumber);
    return sResult.ptr == cpEnd ? uNumber : 0;
}

// A comment, or "DIGEST  NAME" or "DIGEST *NAME", with a backslash before it when the name has
// escapes. None for anything else.
std::optional<MANIFEST_ENTRY> ParseLine(const std::string &I_strLine)
{
    const std::string strText = I_strLine + "\n";
    if (I_strLine.starts_with("#")) return MANIFEST_ENTRY{"", "", CopyIdOf(I_strLine), strText};
    const size_t uDigest = I_strLine.starts_with("\\") ? 1 : 0;
    const size_t uMark = I_strLine.find_first_not_of(DIGITS, uDigest);
    if (uMark != uDigest + DIGEST_LENGTH || I_strLine.size() < uMark + 3) return {};
    if (I_strLine.compare(uMark, 2, "  ") != 0 && I_strLine.compare(uMark, 2, " *") != 0) return {};
    std::string strDigest = I_strLine.substr(uDigest, DIGEST_LENGTH);
    for (char &cDigit : strDigest) cDigit = static_cast<char>(cDigit | ' '); // lower case
    std::optional<std::string> strName = I_strLine.substr(uMark + 2);
    if (uDigest > 0) strName = Unescaped(*strName);
    if (!strName) return {};
    return MANIFEST_ENTRY{strDigest, *strName, 0, strText};
}

// Refuses anything but entries and comments: the wrong file may have been given. An entry includes
// the comment that belongs to it.
std::vector<MANIFEST_ENTRY> ReadLines(const base::TARGET &I_sTarget)
{
    const std::optional<std::string> strText = base::ReadText(I_sTarget);
    if (!strText) throw base::FileFailure("manifest ", I_sTarget.strShown, " does not exist");
    std::vector<MANIFEST_ENTRY> vecLines;
    size_t uNumber = 0;
    for (const std::string &strLine : base::Lines(*strText))
    {
        const std::optional<MANIFEST_ENTRY> sLine = ParseLine(strLine);
        const bool bDosEnd = strLine.ends_with('\r');
        uNumber++;
        if (bDosEnd || !sLine)
            throw base::FileFailure("manifest ", I_sTarget.strShown, ", line ", uNumber,
                                    bDosEnd ? ": ends with CR LF; sha256sum ends lines with LF"
                                            : ": is not in sha256sum's format");
        const bool bNamed = !vecLines.empty() && vecLines.back().strDigest.empty() &&
                            vecLines.back().uCopyId != 0 && !sLine->strDigest.empty();
        if (!bNamed) vecLines.emplace_back();
        vecLines.back() = {sLine->strDigest, sLine->strName,
                           vecLines.back().uCopyId + sLine->uCopyId, // one of them is 0
                           vecLines.back().strText + sLine->strText};
    }
    return vecLines;
}
} // namespace

std::string ManifestName(const base::CONNECTION &I_sConnection, const library::OBJECT &I_sObject)
{
    return I_sConnection.bInformix && !I_sObject.strName.empty()
               ? I_sObject.strSpace + "@" + I_sObject.strName
               : I_sObject.strName;
}

std::vector<MANIFEST_ENTRY> ReadManifest(const std::string &I_strFile)
{
    std::vector<MANIFEST_ENTRY> vecEntries = ReadLines(base::FindTarget(I_strFile));
    std::erase_if(vecEntries, [](const auto &sLine) { return sLine.strDigest.empty(); });
    return vecEntries;
}

void PutIntoManifest(const std::string &I_strFile, const MANIFEST_ENTRY &I_sEntry)
{
    if (I_strFile.empty()) return;
    const base::TARGET sTarget = base::FindTarget(I_strFile);
    const base::CDescriptor sLock = Lock(sTarget);
    std::string strText;
    for (const MANIFEST_ENTRY &sLine : ReadLines(sTarget))
        if (sLine.strName.empty() || sLine.strName != I_sEntry.strName) strText += sLine.strText;
    if (!I_sEntry.strName.empty()) strText += EntryText(I_sEntry);
    base::ReplaceText(sTarget, strText, false);
}
} // namespace transfer
