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
constexpr std::string_view COPY_ID = "# copy id "; // a comment for sha256sum, above the entry

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
        if (sFile.Get() == -1) throw base::SystemFailure("manifest ", I_sTarget.strShown);
        if (TEMP_FAILURE_RETRY(flock(sFile.Get(), LOCK_EX)) != 0 ||
            fstat(sFile.Get(), &sLocked) != 0)
            throw base::SystemFailure("locking manifest ", I_sTarget.strShown);
        sNow = I_sTarget.Status();
    } while (!sNow || sLocked.st_dev != sNow->st_dev || sLocked.st_ino != sNow->st_ino);
    return sFile;
}

// An object's name holds no line end, which sha256sum would write in another way.
std::string EntryText(const MANIFEST_ENTRY &I_sEntry)
{
    std::string strName;
    for (const char cChar : I_sEntry.strName) strName.append(cChar == '\\' ? 2 : 1, cChar);
    const std::string strCopy =
        I_sEntry.uCopyId != 0 ? base::Text(COPY_ID, I_sEntry.uCopyId, '\n') : "";
    const char *cpMark = strName == I_sEntry.strName ? "" : "\\";
    return base::Text(strCopy, cpMark, I_sEntry.strDigest, "  ", strName, '\n');
}

// None when a backslash is before anything that sha256sum does not put there.
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

// 0 when the comment is another one.
unsigned CopyIdOf(std::string_view I_svComment)
{
    unsigned uNumber = 0;
    if (I_svComment.substr(0, COPY_ID.size()) != COPY_ID) return 0;
    I_svComment.remove_prefix(COPY_ID.size());
    const char *cpEnd = I_svComment.data() + I_svComment.size();
    const auto sResult = std::from_chars(I_svComment.data(), cpEnd, uNumber);
    return sResult.ec == std::errc() && sResult.ptr == cpEnd ? uNumber : 0;
}

// A comment, or "DIGEST  NAME" or "DIGEST *NAME", with a backslash before it when the name has
// escapes. None for anything else.
std::optional<MANIFEST_ENTRY> ParseLine(const std::string &I_strLine)
{
    std::string_view svLine = I_strLine;
    if (svLine.substr(0, 1) == "#")
        return MANIFEST_ENTRY{"", "", CopyIdOf(svLine), I_strLine + "\n"};
    const bool bEscaped = svLine.substr(0, 1) == "\\";
    if (bEscaped) svLine.remove_prefix(1);
    const std::string_view svMark = svLine.substr(std::min(DIGEST_LENGTH, svLine.size()), 2);
    if (svLine.size() < DIGEST_LENGTH + 3 || (svMark != "  " && svMark != " *")) return {};
    std::string strDigest(svLine.substr(0, DIGEST_LENGTH));
    if (strDigest.find_first_not_of(DIGITS) != std::string::npos) return {};
    for (char &cDigit : strDigest) cDigit = static_cast<char>(cDigit | ' '); // lower case
    std::optional<std::string> strName(svLine.substr(DIGEST_LENGTH + 2));
    if (bEscaped) strName = Unescaped(*strName);
    if (!strName) return {};
    return MANIFEST_ENTRY{strDigest, *strName, 0, I_strLine + "\n"};
}

// Anything but entries and comments is refused: the file may be another one, given by mistake. An
// entry has the comment that belongs to it.
std::vector<MANIFEST_ENTRY> ReadLines(const base::TARGET &I_sTarget)
{
    const std::optional<std::string> strText = base::ReadText(I_sTarget);
    if (!strText) throw base::FileFailure("manifest ", I_sTarget.strShown, " does not exist");
    std::vector<MANIFEST_ENTRY> vecLines;
    std::istringstream sText(*strText);
    size_t uNumber = 1;
    for (std::string strLine; std::getline(sText, strLine); uNumber++)
    {
        std::optional<MANIFEST_ENTRY> sLine = ParseLine(strLine);
        const bool bDosEnd = !strLine.empty() && strLine.back() == '\r';
        if (bDosEnd || !sLine)
            throw base::FileFailure("manifest ", I_sTarget.strShown, ", line ", uNumber,
                                    bDosEnd
                                        ? ": ends with CR LF; sha256sum's lines end with LF alone"
                                        : ": is not of sha256sum's format");
        if (!sLine->strDigest.empty() && !vecLines.empty() && vecLines.back().strDigest.empty() &&
            vecLines.back().uCopyId != 0)
        {
            sLine->uCopyId = vecLines.back().uCopyId;
            sLine->strText.insert(0, vecLines.back().strText);
            vecLines.pop_back();
        }
        vecLines.push_back(*sLine);
    }
    return vecLines;
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
    for (const MANIFEST_ENTRY &sLine : ReadLines(base::FindTarget(I_strFile)))
        if (!sLine.strDigest.empty()) vecEntries.push_back(sLine);
    return vecEntries;
}

void PutIntoManifest(const std::string &I_strFile, const MANIFEST_ENTRY &I_sEntry)
{
    const base::TARGET sTarget = base::FindTarget(I_strFile);
    const base::CDescriptor sLock = Lock(sTarget);
    std::string strText;
    for (const MANIFEST_ENTRY &sLine : ReadLines(sTarget))
        if (sLine.strName.empty() || sLine.strName != I_sEntry.strName) strText += sLine.strText;
    if (!I_sEntry.strName.empty()) strText += EntryText(I_sEntry);
    base::ReplaceText(sTarget, strText, false);
}
} // namespace transfer
