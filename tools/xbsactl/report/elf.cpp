// Symbols of a program or library, read from the memory of the process that runs it: its file may
// be deleted, replaced by an upgrade, or in another mount namespace.
#include <elf.h>
#include <link.h>
#include <sys/uio.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "report/live.h"

extern "C" __attribute__((visibility("hidden"))) const ElfW(Ehdr) __ehdr_start; // by the linker

namespace report
{
namespace
{
constexpr size_t MOST_SEGMENTS = 64;
constexpr size_t MOST_ENTRIES = 256; // of a dynamic section
constexpr size_t MOST_STEPS = 256;   // along a chain of a hash table

using WORD = ElfW(Addr);
constexpr uint32_t WORD_BITS = sizeof(WORD) * 8;

// What of a loaded file is needed to look a symbol up; addresses of the process.
struct TABLES
{
    uint64_t uBias = 0; // what the loader added to the file's addresses
    uint64_t uSymbols = 0;
    uint64_t uStrings = 0;
    uint64_t uStringSize = 0;
    uint64_t uGnuHash = 0;
};

// The address of the dynamic section; 0 for none.
uint64_t FindDynamic(const CMemory &I_sMemory, uint64_t I_uStart, const ElfW(Ehdr) & I_sHeader,
                     uint64_t &X_uBias)
{
    std::array<ElfW(Phdr), MOST_SEGMENTS> saSegments{};
    const size_t uCount = std::min<size_t>(I_sHeader.e_phnum, MOST_SEGMENTS);
    if (!I_sMemory.Read(I_uStart + I_sHeader.e_phoff, saSegments.data(),
                        uCount * sizeof saSegments[0]))
        return 0;
    const ElfW(Phdr) *const spBegin = saSegments.data();
    const ElfW(Phdr) *const spEnd = spBegin + uCount;
    const auto fpFind = [&](ElfW(Word) uType) {
        return std::find_if(spBegin, spEnd, [uType](const ElfW(Phdr) & sSegment) {
            return sSegment.p_type == uType;
        });
    };
    const ElfW(Phdr) *spFirst = fpFind(PT_LOAD);
    const ElfW(Phdr) *spDynamic = fpFind(PT_DYNAMIC);
    if (spFirst == spEnd || spDynamic == spEnd) return 0;
    X_uBias = I_uStart - (spFirst->p_vaddr - spFirst->p_offset);
    return X_uBias + spDynamic->p_vaddr;
}

// The loader of the GNU C library turns most addresses of the section into the process's own.
TABLES ReadTables(const CMemory &I_sMemory, uint64_t I_uStart, uint64_t I_uBias,
                  uint64_t I_uDynamic)
{
    TABLES sTables{.uBias = I_uBias};
    ElfW(Dyn) sEntry{};
    for (size_t uEntry = 0; uEntry < MOST_ENTRIES; uEntry++)
    {
        if (!I_sMemory.Read(I_uDynamic + uEntry * sizeof sEntry, sEntry)) return {};
        const uint64_t uValue = sEntry.d_un.d_ptr;
        const uint64_t uAddress = uValue >= I_uStart ? uValue : I_uBias + uValue;
        if (sEntry.d_tag == DT_NULL) return sTables;
        if (sEntry.d_tag == DT_SYMTAB) sTables.uSymbols = uAddress;
        if (sEntry.d_tag == DT_STRTAB) sTables.uStrings = uAddress;
        if (sEntry.d_tag == DT_STRSZ) sTables.uStringSize = uValue;
        if (sEntry.d_tag == DT_GNU_HASH) sTables.uGnuHash = uAddress;
    }
    return {};
}

// The symbol of that number when it has the name and is not another file's.
std::optional<ElfW(Sym)> Check(const CMemory &I_sMemory, const TABLES &I_sTables,
                               uint32_t I_uNumber, std::string_view I_svName)
{
    ElfW(Sym) sSymbol{};
    std::array<char, 32> caName{};
    if (!I_sMemory.Read(I_sTables.uSymbols + I_uNumber * sizeof sSymbol, sSymbol)) return {};
    if (sSymbol.st_shndx == SHN_UNDEF) return {};
    if (sSymbol.st_name + I_svName.size() >= I_sTables.uStringSize) return {};
    if (!I_sMemory.Read(I_sTables.uStrings + sSymbol.st_name, caName.data(), I_svName.size() + 1))
        return {};
    if (I_svName != caName.data()) return {};
    return sSymbol;
}

std::optional<ElfW(Sym)> Find(const CMemory &I_sMemory, const TABLES &I_sTables,
                              std::string_view I_svName)
{
    uint32_t uHash = 5381;
    for (const char cByte : I_svName) uHash = uHash * 33 + static_cast<unsigned char>(cByte);

    struct
    {
        uint32_t uBuckets, uFirst, uWords, uShift;
    } sHead{};
    WORD uWord = 0;
    uint32_t uNumber = 0;
    const uint64_t uFilter = I_sTables.uGnuHash + sizeof sHead;
    if (!I_sMemory.Read(I_sTables.uGnuHash, sHead) || sHead.uBuckets == 0 || sHead.uWords == 0)
        return {};
    if (!I_sMemory.Read(uFilter + uHash / WORD_BITS % sHead.uWords * sizeof uWord, uWord) ||
        (uWord >> uHash % WORD_BITS & uWord >> (uHash >> sHead.uShift % 32) % WORD_BITS & 1) == 0)
        return {};
    const uint64_t uBuckets = uFilter + uint64_t{sHead.uWords} * sizeof uWord;
    const uint64_t uChains = uBuckets + uint64_t{sHead.uBuckets} * sizeof uNumber;
    if (!I_sMemory.Read(uBuckets + uHash % sHead.uBuckets * sizeof uNumber, uNumber)) return {};
    for (size_t uStep = 0; uNumber >= sHead.uFirst && uNumber != 0 && uStep < MOST_STEPS; uStep++)
    {
        uint32_t uLink = 0; // the hash, with an end mark in its last bit
        if (!I_sMemory.Read(uChains + (uNumber - sHead.uFirst) * sizeof uLink, uLink)) return {};
        const bool bSame = (uLink | 1U) == (uHash | 1U);
        if (const auto sFound =
                bSame ? Check(I_sMemory, I_sTables, uNumber, I_svName) : std::nullopt)
            return sFound;
        if ((uLink & 1U) != 0) break;
        uNumber++;
    }
    return {};
}

} // namespace

bool CMemory::Read(uint64_t I_uAddress, void *vpData, size_t I_uLength) const
{
    const struct iovec sLocal = {vpData, I_uLength};
    const struct iovec sRemote = {reinterpret_cast<void *>(static_cast<uintptr_t>(I_uAddress)),
                                  I_uLength};
    const ssize_t iRead = process_vm_readv(iPid, &sLocal, 1, &sRemote, 1, 0);
    if (iRead == -1 && errno == EPERM) bForbidden = true;
    return iRead >= 0 && static_cast<size_t>(iRead) == I_uLength;
}

std::optional<EXPORTS> ReadExports(const CMemory &I_sMemory, uint64_t I_uStart)
{
    ElfW(Ehdr) sHeader{};
    if (!I_sMemory.Read(I_uStart, sHeader)) return {};
    if (memcmp(sHeader.e_ident, ELFMAG, SELFMAG) != 0) return EXPORTS{};
    if (memcmp(sHeader.e_ident, __ehdr_start.e_ident, EI_VERSION) != 0 ||
        sHeader.e_machine != __ehdr_start.e_machine)
        return EXPORTS{.bForeign = true};

    uint64_t uBias = 0;
    const uint64_t uDynamic = FindDynamic(I_sMemory, I_uStart, sHeader, uBias);
    const TABLES sTables = ReadTables(I_sMemory, I_uStart, uBias, uDynamic);
    if (uDynamic == 0 || sTables.uSymbols == 0 || sTables.uGnuHash == 0) return {};
    EXPORTS sExports;
    sExports.bCalls = Find(I_sMemory, sTables, "BSASendData").has_value();
    if (const auto sRecord = Find(I_sMemory, sTables, "sGlobal"))
    {
        sExports.uRecord = uBias + sRecord->st_value - I_uStart;
        sExports.uSize = sRecord->st_size;
    }
    return sExports;
}
} // namespace report
