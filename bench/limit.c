// Measures what the system allows: bare send() and recv() over loopback, and a bare client that has
// the same conversation as the library.
//
//   limit send|recv PORT BLOCK BYTES              one connection
//   limit store|restore PORT BLOCK BYTES COUNT    COUNT objects, each with its conversation; runs
//                                                 BENCH_UTILITY, if set, as in Informix mode:
//                                                 twice before and twice after
//
// Prints wall and CPU seconds. Under the name olm_com_interface it is the benchmark's COM utility.
#include "peer.h"

static void SendAll(int hData, size_t uBlock, long long llBytes)
{
    const char *cpBlock = Block();
    while (llBytes > 0)
    {
        size_t uSend = llBytes < (long long)uBlock ? (size_t)llBytes : uBlock;
        ssize_t iSent = send(hData, cpBlock, uSend, MSG_NOSIGNAL);
        Check(iSent > 0, "send");
        llBytes -= iSent;
    }
}

static void ReceiveAll(int hData, size_t uBlock)
{
    char *cpBlock = Block();
    while (recv(hData, cpBlock, uBlock, 0) > 0)
    {
    }
}

static void Print(double dStart, double dCpu)
{
    printf("{\"wall\": %.6f, \"cpu\": %.6f}\n", Now() - dStart, Cpu() - dCpu);
}

// Receives one reply, usually with one call. Two may arrive together, because the server sends the
// closing reply without a command; then the second is remembered.
static void Reply(int hControl)
{
    static int iLines = 0;
    char acText[512];
    while (iLines == 0)
    {
        ssize_t iGot = recv(hControl, acText, sizeof acText, 0);
        Check(iGot > 0, "reply");
        for (ssize_t iByte = 0; iByte < iGot; iByte++) iLines += acText[iByte] == '\n';
    }
    iLines--;
}

static void Ask(int hControl, const char *cpLine)
{
    Check(send(hControl, cpLine, strlen(cpLine), MSG_NOSIGNAL) > 0, "command");
    Reply(hControl);
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
    Ask(hControl, szLine);
    setsockopt(hControl, IPPROTO_TCP, TCP_QUICKACK, &iOn, sizeof iOn);
    int hData = accept(hListener, NULL, NULL);
    close(hListener);
    return hData;
}

// Runs until the other end has sent or received everything.
static void Move(int hControl, int hData, int bStore, size_t uBlock, long long llBytes)
{
    if (bStore) SendAll(hData, uBlock, llBytes);
    else ReceiveAll(hData, uBlock);
    close(hData);
    Reply(hControl);
}

static int Greet(int iPort)
{
    int hControl = Connect((struct in_addr){htonl(INADDR_LOOPBACK)}, iPort);
    Reply(hControl);
    return hControl;
}

static void Quit(int hControl)
{
    Ask(hControl, "QUIT\r\n");
    close(hControl);
}

// The other end is the server that the library uses, because another process would differ by more
// than what is measured. The clock starts when the connection is open, as BENCH_OPEN starts it.
static int Bare(int bSend, char **cppArgument)
{
    long long llBytes = atoll(cppArgument[2]);
    int hControl = Greet(atoi(cppArgument[0]));
    int hData = OpenData(hControl, bSend, llBytes);
    Block();
    double dStart = Now();
    double dCpu = Cpu();
    Move(hControl, hData, bSend, (size_t)atol(cppArgument[1]), llBytes);
    Quit(hControl);
    Print(dStart, dCpu);
    return 0;
}

static void Object(int iPort, int bStore, size_t uBlock, long long llBytes)
{
    static const char *const apLogin[] = {"USER backup\r\n", "PASS secret\r\n", "TYPE I\r\n",
                                          "CWD /data\r\n"};
    int hControl = Greet(iPort);
    for (size_t uLine = 0; uLine < 4; uLine++) Ask(hControl, apLogin[uLine]);
    int hData = OpenData(hControl, bStore, llBytes);
    Move(hControl, hData, bStore, uBlock, llBytes);
    Quit(hControl);
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
    if (iArguments < 5) return 2;
    int bOut = cppArgument[1][0] == 's'; // send, store
    if (iArguments > 5) return Talk(bOut, cppArgument + 2);
    return Bare(bOut, cppArgument + 2);
}
