// The simulated world around the library, and the checks after every run.
#include "fuzz.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

WORLD sWorld;
static thread_local bool bFuzzed = false; // set in the thread of the runs, not in the fuzzer's own
static int hServerControl = -1;
static int hServerData = -1;

void fuzz_Fail(const char *cpFile, int iLine, const char *cpWhat)
{
    fprintf(stderr, "CHECK failed at %s:%d: %s\n", cpFile, iLine, cpWhat);
    abort();
}

unsigned fuzz_Byte(std::string &X_strBytes)
{
    const auto ucByte = static_cast<unsigned char>(X_strBytes[0]);
    X_strBytes.erase(0, 1);
    return ucByte;
}

std::string fuzz_Text(std::string &X_strBytes, char I_cEnd)
{
    const std::string strText = X_strBytes.substr(0, X_strBytes.find(I_cEnd));
    X_strBytes.erase(0, strText.size() + 1);
    return strText;
}

static void Keep(int *hpServer, int hNew)
{
    if (*hpServer != -1) close(*hpServer);
    *hpServer = hNew;
}

// Makes a pair: one end for the library, the other filled with what the server sends.
static int Pair(int *hpServer, const std::string &I_strText)
{
    int haEnds[2];
    CHECK(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, haEnds) == 0);
    const ssize_t iSent = send(haEnds[1], I_strText.data(), I_strText.size(), MSG_DONTWAIT);
    CHECK(iSent == static_cast<ssize_t>(I_strText.size()));
    shutdown(haEnds[1], SHUT_WR);
    Keep(hpServer, haEnds[1]);
    return haEnds[0];
}

static int Memory(const std::string &I_strText)
{
    const int hFile = memfd_create("fuzz", MFD_CLOEXEC);
    CHECK(pwrite(hFile, I_strText.data(), I_strText.size(), 0) != -1);
    return hFile;
}

extern "C" {
int __real_open(const char *cpPath, int iFlags);
unsigned __real_sleep(unsigned uSeconds);
int __real_poll(struct pollfd *spPoll, nfds_t uPolls, int iTime);

int __wrap_open(const char *cpPath, int iFlags)
{
    const auto pFile = sWorld.mapFiles.find(cpPath);
    if (pFile != sWorld.mapFiles.end()) return Memory(pFile->second);
    return __real_open("/dev/null", iFlags & ~O_CREAT);
}

ssize_t __wrap_write(int, const void *vpData, size_t uSize)
{
    sWorld.strWritten.append(static_cast<const char *>(vpData), uSize);
    return static_cast<ssize_t>(uSize);
}

char *__wrap_getenv(const char *cpName)
{
    const auto pValue = sWorld.mapEnvironment.find(cpName);
    return pValue == sWorld.mapEnvironment.end() ? nullptr : pValue->second.data();
}

int __wrap_connect(int hSocket, const struct sockaddr *, socklen_t)
{
    const int hOurs = Pair(&hServerControl, sWorld.strReplies);
    CHECK(dup3(hOurs, hSocket, O_CLOEXEC) == hSocket);
    close(hOurs);
    if (sWorld.bDeaf) Keep(&hServerControl, -1);
    return 0;
}

// The library and the server have the same address.
int __wrap_getpeername(int, struct sockaddr *spAddress, socklen_t *upSize)
{
    struct sockaddr_in sAddress = {};
    sAddress.sin_family = AF_INET;
    sAddress.sin_port = htons(4711);
    sAddress.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    memcpy(spAddress, &sAddress, std::min<size_t>(*upSize, sizeof sAddress));
    *upSize = sizeof sAddress;
    return 0;
}
int __wrap_getsockname(int, struct sockaddr *, socklen_t *)
    __attribute__((alias("__wrap_getpeername")));

// The library polls the listener and the control connection together. Never waits.
int __wrap_poll(struct pollfd *spPoll, nfds_t uPolls, int iTime)
{
    if (uPolls != 2) return __real_poll(spPoll, uPolls, iTime);
    if (sWorld.bNoData) return __real_poll(spPoll, uPolls, 0);
    spPoll[0].revents = POLLIN;
    spPoll[1].revents = 0;
    return 1;
}

int __wrap_accept4(int hListener, struct sockaddr *spAddress, socklen_t *upSize, int)
{
    __wrap_getpeername(hListener, spAddress, upSize);
    spAddress->sa_data[5] = sWorld.bStranger ? 2 : 1; // last byte of the address
    sWorld.bNoData = true;                            // only one connection comes
    return Pair(&hServerData, sWorld.strData);
}

struct hostent *__wrap_gethostbyname(const char *)
{
    static char szName[] = "fuzz.example.com";
    static char caAddress[] = {127, 0, 0, 1};
    static char *cpaAddresses[] = {caAddress, nullptr};
    static struct hostent sHost = {szName, nullptr, AF_INET, sizeof caAddress, cpaAddresses};
    return sWorld.bNoHost ? nullptr : &sHost;
}
struct hostent *__wrap_gethostbyaddr(const void *, socklen_t, int)
    __attribute__((alias("__wrap_gethostbyname")));

unsigned __wrap_sleep(unsigned uSeconds)
{
    return bFuzzed ? 0 : __real_sleep(uSeconds);
}

FILE *__wrap_popen(const char *cpCommand, const char *)
{
    const size_t uRun = sWorld.vecCommands.size();
    sWorld.vecCommands.emplace_back(cpCommand);
    CHECK(uRun < 8);
    return fdopen(Memory(uRun < sWorld.vecAnswers.size() ? sWorld.vecAnswers[uRun] : ""), "r");
}
}

void fuzz_Listen()
{
    char caBlock[4096];
    for (const bool bData : {false, true})
    {
        std::string &strText = bData ? sWorld.strStored : sWorld.strHeard;
        const int hServer = bData ? hServerData : hServerControl;
        ssize_t iRead = 0;
        while ((iRead = recv(hServer, caBlock, sizeof caBlock, MSG_DONTWAIT)) > 0)
            strText.append(caBlock, static_cast<size_t>(iRead));
    }
}

long fuzz_Init(unsigned I_uLevel, bool I_bStrict, bool I_bInformix)
{
    long lHandle = 0;
    char szVersion[] = "BSA_API_VERSION=1.0.1";
    char *cpaEnvironment[] = {szVersion, nullptr};
    BSA_ObjectOwner sOwner = {"INFORMIX", ""};
    if (!I_bInformix) sOwner.bsa_ObjectOwner[0] = 'P';
    if (I_bStrict) sWorld.mapEnvironment["KORVA_STRICT"] = "1";
    sWorld.mapEnvironment.emplace("KORVA_SERVER", "srv"); // unless the target has set it
    sWorld.mapEnvironment.emplace("KORVA_JOB", "job");
    sWorld.mapFiles.emplace("/etc/korva2000.ini", "SM_BIN_KORVA = /opt/k\n");
    const auto fpTrace = [](char *cpMessage) {
        CHECK(strlen(cpMessage) < XBSA_TRACE_SIZE);
        sWorld.strTrace.append(cpMessage).append("\n");
    };
    BSASetTrace(fpTrace, nullptr, static_cast<unsigned char>(I_uLevel));
    CHECK(BSAInit(&lHandle, nullptr, &sOwner, cpaEnvironment) == BSA_RC_SUCCESS);
    sGlobal.sObject.sSMS.iPort = 21;
    return lHandle;
}

// The next free descriptor: differs if a run has left one open or closed too many.
static int NextDescriptor()
{
    const int hNext = dup(STDIN_FILENO);
    close(hNext);
    return hNext;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *ucpData, size_t uSize)
{
    static const _sGlobal sFirst = sGlobal;
    static const _sPrivate sFirstPrivate = sPrivate;
    sGlobal = sFirst;
    sPrivate = sFirstPrivate;
    sWorld = WORLD{};
    bFuzzed = true;
    const int hNext = NextDescriptor();
    sigset_t sMask = {};
    sigprocmask(SIG_SETMASK, nullptr, &sMask);
    std::string strBytes(reinterpret_cast<const char *>(ucpData), uSize);

    fuzz_One(strBytes);
    fuzz_CheckRecord();
    // As when the library is unloaded.
    xbsa_CutTransfer();
    journal_Release();
    qab_ReleaseResult();
    i_ReleaseTrace();
    Keep(&hServerControl, -1);
    Keep(&hServerData, -1);
    CHECK(NextDescriptor() == hNext);
    // A task of the utility leaves all signals blocked except in strict mode: hosts rely on it.
    sigset_t sNow = {};
    sigprocmask(SIG_SETMASK, &sMask, &sNow);
    CHECK((!sWorld.vecCommands.empty() && !sPrivate.bStrict) ||
          memcmp(&sNow, &sMask, sizeof sNow) == 0);
    return 0;
}

void fuzz_CheckRecord()
{
    const auto fpCheck = [](const auto &...szFields) {
        (CHECK(memchr(szFields, '\0', sizeof szFields) != nullptr), ...);
    };
    const STUCT_COM_INPUT &sCOM = sGlobal.sCOM;
    const _sSMS &sSMS = sGlobal.sObject.sSMS;
    fpCheck(sGlobal.sSession.szLastMessage, sGlobal.szLogFile, sSMS.szHostName, sSMS.szUser,
            sSMS.szPass, sSMS.szName, sSMS.szPath, sSMS.szTape, sSMS.szInter, sCOM.szKORVAServer,
            sCOM.szJobName, sCOM.szKORVATapeServer, sCOM.szDrive, sCOM.szPool, sCOM.szCOMTimeOut,
            sCOM.szSessionID, sCOM.szSavesetID, sCOM.szRestoreID);
}
