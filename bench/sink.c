// A server that is never the bottleneck. It supports just enough of FTP in active mode, discards
// stored bytes and invents restored ones: "RETR 1048576" sends 1,048,576 bytes.
//
//   sink [--nagle] [ADDRESS]   prints its port and serves until it is killed. With --nagle the
//                              control connection keeps Nagle's algorithm, as many servers do.
#include "peer.h"

#include <signal.h>
#include <strings.h>
#include <sys/prctl.h>

enum
{
    WORKERS = 48, // connections at once; started in advance
    LINE = 4096
};

typedef struct
{
    int hControl;
    FILE *spLines;
    struct in_addr sHost; // where the client listens
    int iPort;
} SESSION;

static void Say(const SESSION *spSession, const char *cpLine)
{
    (void)!send(spSession->hControl, cpLine, strlen(cpLine), MSG_NOSIGNAL);
}

static const char *Port(SESSION *spSession, const char *cpArgument)
{
    unsigned int uaByte[6];
    if (sscanf(cpArgument, "%u,%u,%u,%u,%u,%u", &uaByte[0], &uaByte[1], &uaByte[2], &uaByte[3],
               &uaByte[4], &uaByte[5]) != 6)
    {
        return "501 six numbers\r\n";
    }
    spSession->sHost.s_addr = htonl(uaByte[0] << 24 | uaByte[1] << 16 | uaByte[2] << 8 | uaByte[3]);
    spSession->iPort = (int)(uaByte[4] * 256 + uaByte[5]);
    return "200 port\r\n";
}

static const char *Transfer(SESSION *spSession, const char *cpName, int bStore)
{
    int hData = Connect(spSession->sHost, spSession->iPort);
    Say(spSession, "150 opening\r\n");
    if (bStore) Discard(hData);
    else Produce(hData, atoll(cpName));
    close(hData);
    return "226 done\r\n";
}

static const char *Answer(SESSION *spSession, const char *cpVerb, const char *cpArgument)
{
    static const char *const aapReplies[][2] = {
        {"USER", "331 password\r\n"},  {"PASS", "230 in\r\n"},
        {"TYPE", "200 type\r\n"},      {"CWD", "250 there\r\n"},
        {"PWD", "257 \"/\" here\r\n"}, {"SYST", "215 UNIX Type: L8\r\n"},
        {"NOOP", "200 yes\r\n"},       {"ALLO", "200 yes\r\n"},
        {"QUIT", "221 bye\r\n"}};
    static char szSize[64];

    if (strcasecmp(cpVerb, "PORT") == 0) return Port(spSession, cpArgument);
    if (strcasecmp(cpVerb, "STOR") == 0) return Transfer(spSession, cpArgument, 1);
    if (strcasecmp(cpVerb, "RETR") == 0) return Transfer(spSession, cpArgument, 0);
    if (strcasecmp(cpVerb, "SIZE") == 0)
    {
        snprintf(szSize, sizeof szSize, "213 %lld\r\n", atoll(cpArgument));
        return szSize;
    }
    for (size_t uRow = 0; uRow < sizeof aapReplies / sizeof *aapReplies; uRow++)
    {
        if (strcasecmp(cpVerb, aapReplies[uRow][0]) == 0) return aapReplies[uRow][1];
    }
    return "502 unknown\r\n";
}

static void Converse(int hControl)
{
    char szLine[LINE];
    SESSION sSession = {.hControl = hControl, .spLines = fdopen(hControl, "r")};
    Say(&sSession, "220 ready\r\n");
    while (fgets(szLine, sizeof szLine, sSession.spLines) != NULL)
    {
        szLine[strcspn(szLine, "\r\n")] = '\0';
        char *cpArgument = szLine + strcspn(szLine, " ");
        if (*cpArgument == ' ') *cpArgument++ = '\0';
        Say(&sSession, Answer(&sSession, szLine, cpArgument));
        if (strcasecmp(szLine, "QUIT") == 0) break;
    }
    fclose(sSession.spLines);
}

static void Serve(int hListener, int bNagle)
{
    const int iOn = 1;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    for (;;)
    {
        int hControl = accept(hListener, NULL, NULL);
        Check(hControl != -1, "accept");
        if (!bNagle) setsockopt(hControl, IPPROTO_TCP, TCP_NODELAY, &iOn, sizeof iOn);
        Converse(hControl);
    }
}

int main(int iArguments, char **cppArgument)
{
    int iPort = 0;
    int bNagle = iArguments > 1 && strcmp(cppArgument[1], "--nagle") == 0;
    struct in_addr sHost = {htonl(INADDR_LOOPBACK)};
    if (iArguments > 1 + bNagle) inet_aton(cppArgument[1 + bNagle], &sHost);
    int hListener = Listen(sHost, &iPort);
    for (int iWorker = 0; iWorker < WORKERS; iWorker++)
    {
        if (fork() == 0) Serve(hListener, bNagle);
    }
    printf("%d\n", iPort);
    fflush(stdout);
    for (;;) pause();
}
