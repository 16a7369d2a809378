// The tape server's address with its login.
#include <cstring>

#include "util/util.h"
#include "xbsa_session.h"

enum
{
    FIELD_SIZE = 4096,
    PORT_SIZE = 8,
    ITEMS = 4
};

// Splits at every ":". Returns the number of ":", or -1 if an item does not fit or a fifth follows,
// because a truncated host name is another host.
static int SplitItems(const char *cpSpec, char **cpaItems, const size_t *uaSizes)
{
    int iItem = 0;
    for (;;)
    {
        size_t uLength = strcspn(cpSpec, ":");
        if (x_CopyText(cpaItems[iItem], uaSizes[iItem], cpSpec, uLength) == 1) return -1;
        if (cpSpec[uLength] == '\0') return iItem;
        if (++iItem == ITEMS) return -1;
        cpSpec += uLength + 1;
    }
}

int ParseCLIHostSpec(char *cpHostSpecStr, char *cpHost, char *cpPort, char *cpUser, char *cpPasswd)
{
    static const size_t uaSizes[ITEMS] = {FIELD_SIZE, PORT_SIZE, FIELD_SIZE, FIELD_SIZE};
    char *cpaItems[ITEMS] = {cpHost, cpPort, cpUser, cpPasswd};
    if (x_IsEmptyString(cpHostSpecStr)) return 0;

    for (char *cpItem : cpaItems) cpItem[0] = '\0';
    int iArgCnt = SplitItems(cpHostSpecStr, cpaItems, uaSizes);
    if (iArgCnt == -1 || cpHost[0] == '\0') return 0;

    if (cpPort[0] == '\0') x_CopyText(cpPort, PORT_SIZE, "11001");
    if (cpUser[0] == '\0' || (strcmp(cpUser, "sms") == 0 && cpPasswd[0] == '\0'))
    {
        x_CopyText(cpUser, FIELD_SIZE, XBSA_SECURE_USER);
    }
    return iArgCnt == 2 ? 0 : 1; // a user without a password
}
