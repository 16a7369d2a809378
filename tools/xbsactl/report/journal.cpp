#include <algorithm>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <list>
#include <set>

#include "base/base.h"
#include "base/json.h"
#include "report/report.h"

namespace report
{
namespace
{
using JSON = nlohmann::json; // sorts keys: faster than base::JSON

constexpr size_t LONGEST_LINE = size_t{64} << 10; // bytes
constexpr uint64_t LINE_SCHEMA = 1;
constexpr std::string_view BEGIN = "{\"schema\":"; // of each line
constexpr const char *DIGITS = "0123456789abcdef";

struct NEWER_SCHEMA
{
};

const std::string &String(const JSON &I_sLine, const char *cpKey)
{
    return I_sLine.at(cpKey).get_ref<const std::string &>();
}

uint64_t Number(const JSON &I_sLine, const char *cpKey, uint64_t I_uMost)
{
    const uint64_t uNumber = I_sLine.at(cpKey).get_ref<const uint64_t &>(); // no sign, no fraction
    return uNumber <= I_uMost ? uNumber : throw std::out_of_range(cpKey);
}

int64_t Time(const std::string &I_strText)
{
    struct tm sTime = {};
    const char *cpEnd = strptime(I_strText.c_str(), "%Y-%m-%dT%H:%M:%SZ", &sTime);
    if (cpEnd != I_strText.c_str() + I_strText.size()) throw std::out_of_range("time");
    return timegm(&sTime);
}

// The library writes a byte that is not UTF-8 as the character of its number, in an escape. Such an
// escape becomes one of U+E080 to U+E0FF, which Name makes the byte again that the server knows.
std::string WithMarks(std::string I_strText)
{
    for (size_t uAt = I_strText.find('\\'); uAt < I_strText.size();
         uAt = I_strText.find('\\', uAt + 2))
        if (I_strText.compare(uAt, 4, "\\u00") == 0 && I_strText[uAt + 4] > '7')
            I_strText.replace(uAt + 2, 2, "e0");
    return I_strText;
}

std::string Name(const JSON &I_sLine, const char *cpKey)
{
    std::string strName = String(I_sLine, cpKey);
    for (size_t uAt = 0; (uAt = strName.find('\xEE', uAt)) != std::string::npos; uAt++)
        if (strName[uAt + 1] == '\x82' || strName[uAt + 1] == '\x83')
            strName.replace(
                uAt, 3, 1,
                static_cast<char>((strName[uAt + 1] & 3) << 6 | (strName[uAt + 2] & 63)));
    return strName;
}

// Throws when a key is missing or has another type; others are not looked at.
ENTRY EntryOf(std::string_view I_svText)
{
    const bool bEscapes = I_svText.find("\\u00") != std::string_view::npos;
    const JSON sLine =
        bEscapes ? JSON::parse(WithMarks(std::string(I_svText))) : JSON::parse(I_svText);
    if (Number(sLine, "schema", UINT64_MAX) != LINE_SCHEMA) throw NEWER_SCHEMA();
    ENTRY sEntry;
    sEntry.iTime = Time(String(sLine, "time"));
    sEntry.lProcess = static_cast<long>(Number(sLine, "pid", INT32_MAX));
    sEntry.bInformix = String(sLine, "mode") == "informix";
    sEntry.bStore = String(sLine, "direction") == "store";
    sEntry.bGood = Number(sLine, "result", UINT32_MAX) == 0;
    sEntry.strSpace = Name(sLine, "space");
    sEntry.strPath = Name(sLine, "path");
    sEntry.uCopyId = static_cast<unsigned>(Number(sLine, "copy_id", UINT32_MAX));
    sEntry.uBytes = Number(sLine, "bytes", INT64_MAX);
    sEntry.dSeconds = sLine.at("seconds").get<double>();
    sEntry.strError = String(sLine, "error");
    sEntry.strDigest = String(sLine, "xxh128");
    if (sEntry.bGood && (sEntry.strDigest.size() != 32 ||
                         sEntry.strDigest.find_first_not_of(DIGITS) != std::string::npos))
        throw std::out_of_range("xxh128");
    sEntry.strText = I_svText;
    return sEntry;
}

// A journal, and what is wrong with it.
struct FILE_READER
{
    FILE_READER(const std::string &I_strFile, const std::function<void(ENTRY &&)> &I_fpTake)
        : strShown(base::Quoted(I_strFile)), fpTake(I_fpTake), sLines(I_strFile, LONGEST_LINE + 1)
    {
    }

    bool TakeText(std::string_view I_svText)
    try
    {
        fpTake(EntryOf(I_svText));
        return true;
    } catch (const NEWER_SCHEMA &)
    {
        uNewer++;
        return true;
    } catch (const JSON::exception &)
    {
        return false;
    } catch (const std::out_of_range &)
    {
        return false;
    }

    // A full disk, or a crash, leaves half a line, and the next good one follows it without a line
    // end between them.
    void TakeLine()
    {
        const std::string_view svLine = sLines.strLine;
        const bool bShort = svLine.size() <= LONGEST_LINE;
        if (bShort && TakeText(svLine)) return;
        uDamaged++;
        const size_t uLast = bShort ? svLine.rfind(BEGIN) : std::string_view::npos;
        if (uLast != std::string_view::npos && uLast != 0) TakeText(svLine.substr(uLast));
    }

    void Read()
    {
        while (sLines.Next()) TakeLine();
        if (uDamaged > 0) Warn(base::Text(uDamaged, " damaged lines skipped in "));
        if (uNewer > 0) Warn(base::Text(uNewer, " lines of a newer version skipped in "));
        if (sLines.bTorn) Warn("truncated compressed data in ");
    }

    void Warn(const std::string &I_strWhat) const
    {
        fprintf(stderr, "xbsactl: warning: %s%s\n", I_strWhat.c_str(), strShown.c_str());
    }

    std::string strShown;
    const std::function<void(ENTRY &&)> &fpTake;
    base::CLines sLines;
    uint64_t uDamaged = 0;
    uint64_t uNewer = 0;
};

// Whether the name is the journal's with ".1" or "-20261126" after it, and perhaps ".gz".
bool IsRotated(std::string I_strName, const std::string &I_strJournal)
{
    if (I_strName.ends_with(".gz")) I_strName.resize(I_strName.size() - 3);
    const std::string strEnd = base::After(I_strName, I_strJournal).value_or("");
    return strEnd.size() > 1 && (strEnd[0] == '.' || strEnd[0] == '-') &&
           strEnd.find_first_not_of("0123456789", 1) == std::string::npos;
}

std::vector<std::string> RotatedOf(const std::string &I_strFile)
{
    std::vector<std::string> vecFound;
    const std::filesystem::path sFile(I_strFile);
    std::error_code sError; // a directory that cannot be listed has none
    const auto sFolder = sFile.has_parent_path() ? sFile.parent_path() : ".";
    for (const auto &sEntry : std::filesystem::directory_iterator(sFolder, sError))
        if (sEntry.is_regular_file(sError) && // opening a pipe must not wait
            IsRotated(sEntry.path().filename(), sFile.filename()))
            vecFound.push_back(sEntry.path());
    return vecFound;
}

// All files are opened before the first is read, the journal itself before the rotated ones are
// listed: a file that logrotate renames at the same time is read, and only once.
class CFiles
{
  public:
    explicit CFiles(const std::function<void(ENTRY &&)> &I_fpTake) : fpTake(I_fpTake)
    {
    }

    void Add(const std::string &I_strFile)
    {
        std::error_code sError;
        const bool bThere = std::filesystem::exists(I_strFile, sError) || I_strFile == "-";
        const std::vector<std::string> vecNone;
        if (bThere) Open(I_strFile);
        std::vector<std::string> vecRotated = RotatedOf(I_strFile);
        if (!bThere && vecRotated.empty())
            throw base::FileFailure("journal ", base::Quoted(I_strFile),
                                    " does not exist: the library creates the file that the "
                                    "variable KORVA_JOURNAL names");
        for (const std::string &strRotated : vecRotated) Open(strRotated);
    }

    void Read()
    {
        for (FILE_READER &sFile : lstFiles) sFile.Read();
    }

  private:
    void Open(const std::string &I_strFile)
    {
        FILE_READER &sFile = lstFiles.emplace_front(I_strFile, fpTake);
        const struct stat &sStatus = sFile.sLines.sStatus;
        if (!setSeen.emplace(sStatus.st_dev, sStatus.st_ino).second) lstFiles.pop_front();
    }

    const std::function<void(ENTRY &&)> &fpTake;
    std::list<FILE_READER> lstFiles; // the journal itself after its rotated ones
    std::set<std::pair<dev_t, ino_t>> setSeen;
};
} // namespace

std::string Name(const ENTRY &I_sEntry)
{
    if (I_sEntry.bInformix) return I_sEntry.strSpace + "@" + I_sEntry.strPath;
    const std::string strFolder = I_sEntry.strPath == "." ? "" : I_sEntry.strPath;
    return strFolder + (strFolder.empty() || strFolder.ends_with('/') ? "" : "/") +
           I_sEntry.strSpace;
}

void ReadJournals(const std::vector<std::string> &I_vecFiles,
                  const std::function<void(ENTRY &&)> &I_fpTake)
{
    CFiles sFiles(I_fpTake);
    for (const std::string &strFile : I_vecFiles) sFiles.Add(strFile);
    sFiles.Read();
}
} // namespace report
