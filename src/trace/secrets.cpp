// Texts for the trace and the last message, passwords in them hidden.
#include <cstring>

#include "trace/trace.h"
#include "util/text.h"

enum
{
    OWNER_TAG = 5,   // characters before the value in an owner token
    CODE_LENGTH = 4, // "226 ", which callers look for
    SHORT_SECRET = 4 // a shorter password is hidden only where it is a word of its own
};

void i_MaskOwner(char *cpMasked, size_t uSize, const char *cpOwner)
{
    x_CopyText(cpMasked, uSize, cpOwner, sizeof(((BSA_ObjectOwner *)nullptr)->bsa_ObjectOwner));

    size_t uFirst = strspn(cpMasked, ":") + strcspn(cpMasked + strspn(cpMasked, ":"), ":");
    char *cpSecond = cpMasked + uFirst;
    cpSecond += strspn(cpSecond, ":");
    if (*cpSecond == '\0') return;

    size_t uShown = strnlen(cpSecond, OWNER_TAG);
    size_t uLeft = uSize - static_cast<size_t>(cpSecond - cpMasked) - uShown;
    x_CopyText(cpSecond + uShown, uLeft, TRACE_SECRET);
}

static bool IsWordByte(char cByte)
{
    return (cByte >= '0' && cByte <= '9') || (cByte >= 'A' && cByte <= 'Z') ||
           (cByte >= 'a' && cByte <= 'z');
}

// The next place of the password in a text, in any letter case; null for none.
static const char *FindSecret(const char *cpText, const char *cpStart, const char *cpSecret)
{
    const size_t uSecret = strlen(cpSecret);
    const char *cpFound = strcasestr(cpText, cpSecret);
    while (cpFound != nullptr && uSecret < SHORT_SECRET)
    {
        bool bWord =
            (cpFound == cpStart || !IsWordByte(cpFound[-1])) && !IsWordByte(cpFound[uSecret]);
        if (bWord) break;
        cpFound = strcasestr(cpFound + 1, cpSecret);
    }
    return cpFound;
}

// The password of the login that is not to be shown; null when there is none. That of the service
// user is account and host; one that equals the user's name is traced as that anyway.
static const char *Secret()
{
    const _sSMS *spSMS = &sGlobal.sObject.sSMS;
    if (spSMS->szPass[0] == '\0' || strcmp(spSMS->szUser, "sms") == 0) return nullptr;
    return strcmp(spSMS->szPass, spSMS->szUser) == 0 ? nullptr : spSMS->szPass;
}

const char *i_MaskReply(const char *cpReply)
{
    static char szMasked[XBSA_REPLY_SIZE];
    const char *cpSecret = Secret();
    const char *cpRest = cpReply + strnlen(cpReply, CODE_LENGTH);
    const char *cpFound = cpSecret != nullptr ? FindSecret(cpRest, cpReply, cpSecret) : nullptr;
    if (cpFound == nullptr) return cpReply;

    cpRest = cpReply;
    size_t uMasked = 0;
    while (cpFound != nullptr)
    {
        x_CopyText(szMasked + uMasked, sizeof szMasked - uMasked, cpRest,
                   static_cast<size_t>(cpFound - cpRest));
        uMasked += strlen(szMasked + uMasked);
        x_CopyText(szMasked + uMasked, sizeof szMasked - uMasked, TRACE_SECRET);
        uMasked += strlen(szMasked + uMasked);
        cpRest = cpFound + strlen(cpSecret);
        cpFound = FindSecret(cpRest, cpReply, cpSecret);
    }
    x_CopyText(szMasked + uMasked, sizeof szMasked - uMasked, cpRest);
    return szMasked;
}
