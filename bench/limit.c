// What the system itself allows: bare send() and recv() over loopback, and a bare client that plays
// the library's conversation without a library.
//
//   limit send|recv BLOCK BYTES                   one connection, no conversation
//   limit store|restore PORT BLOCK BYTES COUNT    COUNT objects, each with its conversation; with
//                                                 BENCH_UTILITY set that is run as for an Informix
//                                                 session: two times before and two times after
//
// Prints wall and CPU seconds. Called olm_com_interface it is the COM utility of the benchmark.
#include "peer.h"

#include <sys/wait.h>

static char acBlock[65536];

static void SendAll(int hData, size_t uBlock, long long llBytes)
{
    while (llBytes > 0)
    {
        size_t uSend = llBytes < (long long)uBlock ? (size_t)llBytes : uBlock;
        ssize_t iSent = send(hData, acBlock, uSend, MSG_NOSIGNAL);
        Check(iSent > 0, "send");
        llBytes -= iSent;
    }
}

static void ReceiveAll(int hData, size_t uBlock)
{
    while (recv(hData, acBlock, uBlock, 0) > 0)
    {
    }
}

static void Print(double dStart, double dCpu)
{
    printf("{\"wall\": %.6f, \"cpu\": %.6f}\n", Now() - dStart, Cpu() - dCpu);
}

static int Bare(int bSend, size_t uBlock, long long llBytes)
{
    int iPort = 0;
    struct in_addr sHost = {htonl(INADDR_LOOPBACK)};
    int hListener = Listen(sHost, &iPort);
    if (fork() == 0)
    {
        int hPeer = Connect(sHost, iPort);
        if (bSend) Discard(hPeer);
        else Produce(hPeer, llBytes);
        _exit(0);
    }
    int hData = accept(hListener, NULL, NULL);
    double dStart = Now();
    double dCpu = Cpu();
    if (bSend)
    {
        SendAll(hData, uBlock, llBytes);
        shutdown(hData, SHUT_WR);
    }
    ReceiveAll(hData, uBlock); // of a sender: until the receiver has taken everything
    Print(dStart, dCpu);
    return 0;
}

// One reply in one receive: the server sends nothing ahead of a command but the closing reply,
// which is then behind the 150.
static void Reply(int hControl, int iLines)
{
    char acText[512];
    while (iLines > 0)
    {
        ssize_t iGot = recv(hControl, acText, sizeof acText, 0);
        Check(iGot > 0, "reply");
        for (ssize_t iByte = 0; iByte < iGot; iByte++) iLines -= acText[iByte] == '\n';
    }
}

static void Ask(int hControl, const char *cpLine)
{
    Check(send(hControl, cpLine, strlen(cpLine), MSG_NOSIGNAL) > 0, "command");
    Reply(hControl, 1);
}

static int OpenData(int hControl, int bStore, long long llBytes)
{
    char szLine[128];
    int iPort = 0;
    const int iOn = 1;
    struct in_addr sHost = {htonl(INADDR_LOOPBACK)};
    int hListener = Listen(sHost, &iPort);
    snprintf(szLine, sizeof szLine, "PORT 127,0,0,1,%d,%d\r\n", iPort / 256, iPort % 256);
    Ask(hControl, szLine);
    if (bStore) snprintf(szLine, sizeof szLine, "STOR object\r\n");
    else snprintf(szLine, sizeof szLine, "RETR %lld\r\n", llBytes);
    Check(send(hControl, szLine, strlen(szLine), MSG_NOSIGNAL) > 0, "command");
    int hData = accept(hListener, NULL, NULL);
    setsockopt(hControl, IPPROTO_TCP, TCP_QUICKACK, &iOn, sizeof iOn);
    close(hListener);
    return hData;
}

static void Object(int iPort, int bStore, size_t uBlock, long long llBytes)
{
    static const char *const apLogin[] = {"USER backup\r\n", "PASS secret\r\n", "TYPE I\r\n",
                                          "CWD /data\r\n"};
    int hControl = Connect((struct in_addr){htonl(INADDR_LOOPBACK)}, iPort);
    Reply(hControl, 1);
    for (size_t uLine = 0; uLine < 4; uLine++) Ask(hControl, apLogin[uLine]);
    int hData = OpenData(hControl, bStore, llBytes);
    if (bStore) SendAll(hData, uBlock, llBytes);
    else ReceiveAll(hData, uBlock);
    close(hData);
    Reply(hControl, 2); // 150 and 226
    Ask(hControl, "QUIT\r\n");
    close(hControl);
}

static void RunUtility(int iTimes)
{
    const char *cpUtility = getenv("BENCH_UTILITY");
    char acAnswer[4096];
    while (cpUtility != NULL && iTimes-- > 0)
    {
        FILE *spPipe = popen(cpUtility, "r");
        while (fread(acAnswer, 1, sizeof acAnswer, spPipe) > 0)
        {
        }
        pclose(spPipe);
    }
}

static int Talk(int bStore, char **cppArgument)
{
    int iPort = atoi(cppArgument[0]);
    double dStart = Now();
    double dCpu = Cpu();
    for (int iObject = 0; iObject < atoi(cppArgument[3]); iObject++)
    {
        RunUtility(2);
        Object(iPort, bStore, (size_t)atol(cppArgument[1]), atoll(cppArgument[2]));
        RunUtility(2);
    }
    Print(dStart, dCpu);
    return 0;
}

static int Utility(void)
{
    printf("reply=OK\nsessionID=17\ntape_server=127.0.0.1:%s:backup:secret\ndrive=/data\n"
           "tape=T1:7:65536\nsavesetname=1024@R1\n",
           getenv("BENCH_PORT"));
    return 0;
}

int main(int iArguments, char **cppArgument)
{
    if (strstr(cppArgument[0], "olm_com_interface") != NULL) return Utility();
    if (iArguments < 4) return 2;
    int bOut = cppArgument[1][0] == 's'; // send, store
    if (iArguments > 5) return Talk(bOut, cppArgument + 2);
    return Bare(bOut, (size_t)atol(cppArgument[2]), atoll(cppArgument[3]));
}
