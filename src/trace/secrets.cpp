// Masks passwords in texts for the trace and the last message.
#include <cstring>

#include "record/record.h"
#include "trace/trace.h"
#include "util/util.h"

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

static bool IsLetterOrDigit(char cByte)
{
    return (cByte >= '0' && cByte <= '9') || (cByte >= 'A' && cByte <= 'Z') ||
           (cByte >= 'a' && cByte <= 'z');
}

// The next occurrence of the password, or null. A short one must be a whole word: "pass" is not the
// secret in "password".
static char *FindSecret(char *cpText, const char *cpSecret)
{
    const size_t uShort = 6;
    const size_t uSecret = strlen(cpSecret);
    char *cpFound = strstr(cpText, cpSecret);
    for (; cpFound != nullptr; cpFound = strstr(cpFound + 1, cpSecret))
    {
        bool bInside = IsLetterOrDigit(cpFound[-1]) && IsLetterOrDigit(cpSecret[0]);
        bool bGoesOn = IsLetterOrDigit(cpFound[uSecret]) && IsLetterOrDigit(cpSecret[uSecret - 1]);
        if (uSecret >= uShort || (!bInside && !bGoesOn)) return cpFound;
    }
    return nullptr;
}

// The password of the login that must be masked, or an empty text. The service user's password is
// account and host; a password that equals the user's name is traced as the name anyway.
static const char *HiddenPassword()
{
    const _sSMS *spSMS = &sGlobal.sObject.sSMS;
    bool bShown = strcmp(spSMS->szUser, "sms") == 0 || strcmp(spSMS->szPass, spSMS->szUser) == 0;
    return bShown ? "" : spSMS->szPass;
}

const char *i_MaskReply(const char *cpReply)
{
    const char *cpSecret = HiddenPassword();
    if (cpSecret[0] == '\0' || strstr(cpReply, cpSecret) == nullptr) return cpReply;

    char *cpMasked = sPrivate.sTrace.szMasked + 1; // the byte before it is not a letter
    const char *cpEnd = sPrivate.sTrace.szMasked + sizeof sPrivate.sTrace.szMasked;
    x_CopyText(cpMasked, sizeof sPrivate.sTrace.szMasked - 1, cpReply);
    char *cpRest = cpMasked + (strspn(cpReply, "0123456789") == 3 ? 3 : 0);
    while ((cpRest = FindSecret(cpRest, cpSecret)) != nullptr)
    {
        char szAfter[XBSA_REPLY_SIZE + 1];
        x_CopyText(szAfter, sizeof szAfter, cpRest + strlen(cpSecret));
        x_CopyText(cpRest, static_cast<size_t>(cpEnd - cpRest), TRACE_SECRET);
        cpRest += strlen(cpRest);
        x_CopyText(cpRest, static_cast<size_t>(cpEnd - cpRest), szAfter);
    }
    return cpMasked;
}
