// XXH3-128, compiled in from its header so that the library needs no other library at run time.
#define XXH_INLINE_ALL
#include <xxhash.h>

#include "journal/journal.h"

static_assert(sizeof(XXH3_state_t) <= sizeof JOURNAL::byaChecksum, "a larger state");
static_assert(alignof(XXH3_state_t) <= alignof(JOURNAL), "a state with a wider alignment");

void journal_ResetChecksum(JOURNAL *spJournal)
{
    XXH3_128bits_reset(reinterpret_cast<XXH3_state_t *>(spJournal->byaChecksum));
}

void journal_AddToChecksum(JOURNAL *spJournal, const void *vpBytes, size_t uLength)
{
    XXH3_128bits_update(reinterpret_cast<XXH3_state_t *>(spJournal->byaChecksum), vpBytes, uLength);
}

void journal_ReadChecksum(const JOURNAL *spJournal, char (&szDigits)[JOURNAL_DIGITS + 1])
{
    XXH128_canonical_t sBytes;
    const XXH128_hash_t sHash =
        XXH3_128bits_digest(reinterpret_cast<const XXH3_state_t *>(spJournal->byaChecksum));
    XXH128_canonicalFromHash(&sBytes, sHash);
    char *cpDigit = szDigits;
    for (const unsigned char byByte : sBytes.digest)
    {
        *cpDigit++ = "0123456789abcdef"[byByte >> 4];
        *cpDigit++ = "0123456789abcdef"[byByte & 15];
    }
    *cpDigit = '\0';
}
