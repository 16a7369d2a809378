#define XXH_INLINE_ALL // all of it is in the header
#include <xxhash.h>

#include <cstdio>
#include <ctime>
#include <map>
#include <tuple>

#include "report/report.h"
#include "transfer/parts.h"

namespace transfer
{
namespace
{
constexpr int64_t DAY = 86400; // seconds

bool IsWanted(const base::CONNECTION &I_sConnection, const OPTIONS &I_sOptions,
              const report::ENTRY &I_sEntry)
{
    const auto &[strSpace, strName, uCopyId] = I_sOptions.sObject;
    const bool bInformix = I_sConnection.bInformix;
    if (!I_sEntry.bStore || !I_sEntry.bGood || I_sEntry.bInformix != bInformix) return false;
    const std::string &strEntryName = bInformix ? I_sEntry.strPath : I_sEntry.strSpace;
    if (!strName.empty() && strEntryName != strName) return false;
    if (!bInformix)
        return I_sConnection.strPath == base::CONNECTION().strPath ||
               I_sConnection.strPath == I_sEntry.strPath;
    return (strSpace.empty() || I_sEntry.strSpace == strSpace) &&
           (uCopyId == 0 || I_sEntry.uCopyId == uCopyId);
}

// Each object's name puts it into one of T shares, and each day takes the next N of them: after T /
// N days, rounded up, every share has had its turn.
class CSample
{
  public:
    explicit CSample(const std::string &I_strSample)
    {
        char cEnd = 0;
        if (I_strSample.empty()) return;
        if (sscanf(I_strSample.c_str(), "%9u/%9u%c", &uTaken, &uShares, &cEnd) != 2 ||
            uTaken == 0 || uShares < uTaken)
            throw base::USAGE_ERROR("--sample: \"", base::Printable(I_strSample),
                                    "\" is not N/T such as 1/7, with N from 1 to T");
    }

    bool Has(const report::ENTRY &I_sEntry) const
    {
        const std::string strName = report::Name(I_sEntry);
        const uint64_t uHash = XXH3_64bits(strName.data(), strName.size());
        return (uHash % uShares + uNight % uShares * uTaken) % uShares < uTaken;
    }

  private:
    unsigned uTaken = 1;
    unsigned uShares = 1;
    uint64_t uNight = static_cast<uint64_t>(time(nullptr) / DAY);
};

MANIFEST_ENTRY Entry(const report::ENTRY &I_sEntry)
{
    const bool bInformix = I_sEntry.bInformix;
    return {I_sEntry.strDigest,
            bInformix ? report::Name(I_sEntry) : I_sEntry.strSpace,
            bInformix ? I_sEntry.uCopyId : 0,
            "",
            I_sEntry.uBytes,
            bInformix ? "" : I_sEntry.strPath};
}
} // namespace

// In plain mode the server has only the newest copy.
std::vector<MANIFEST_ENTRY> JournalEntries(const base::CONNECTION &I_sConnection,
                                           const OPTIONS &I_sOptions)
{
    const CSample sSample(I_sOptions.strSample);
    std::map<std::tuple<std::string, std::string, unsigned>, report::ENTRY> mapEntries;
    report::ReadJournals(I_sOptions.vecJournals, [&](report::ENTRY &&sEntry) {
        if (!IsWanted(I_sConnection, I_sOptions, sEntry)) return;
        const bool bNewest = I_sOptions.bNewest || !I_sConnection.bInformix;
        report::ENTRY &sLast =
            mapEntries[{sEntry.strSpace, sEntry.strPath, bNewest ? 0 : sEntry.uCopyId}];
        sEntry.strText.clear();
        if (sLast.iTime <= sEntry.iTime) sLast = std::move(sEntry);
    });
    if (mapEntries.empty())
        throw base::FAILURE("the journal contains no good store of such an object",
                            base::EXIT_NO_MATCH);
    std::vector<MANIFEST_ENTRY> vecEntries;
    for (const auto &[sKey, sEntry] : mapEntries)
        if (sSample.Has(sEntry)) vecEntries.push_back(Entry(sEntry));
    return vecEntries;
}
} // namespace transfer
