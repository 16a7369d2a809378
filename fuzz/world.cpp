// The world around the library, and what must hold after every run.
#include "fuzz.h"

#include <algorithm>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <pwd.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

WORLD sWorld;
static thread_local bool bOn = false; // a run is on: the fuzzer's own calls go through
static int hServerControl = -1;
static int hServerData = -1;

void fuzz_Fail(const char *cpFile, int iLine, const char *cpWhat)
{
    bOn = false;
    fprintf(stderr, "CHECK failed at %s:%d: %s\n", cpFile, iLine, cpWhat);
    abort();
}

bool fuzz_IsOneOf(int I_iValue, std::initializer_list<int> I_lstValues)
{
    return std::find(I_lstValues.begin(), I_lstValues.end(), I_iValue) != I_lstValues.end();
}

// --- The input -----------------------------------------------------------------------------------

CBytes::CBytes(const uint8_t *ucpData, size_t I_uSize)
    : strBytes(reinterpret_cast<const char *>(ucpData), I_uSize)
{
}

unsigned CBytes::Byte()
{
    return IsEmpty() ? 0 : static_cast<unsigned char>(strBytes[uPlace++]);
}

std::string CBytes::Text(char I_cEnd)
{
    const size_t uEnd = std::min(strBytes.find(I_cEnd, uPlace), strBytes.size());
    const std::string strText = strBytes.substr(uPlace, uEnd - uPlace);
    uPlace = std::min(uEnd + 1, strBytes.size());
    return strText;
}

std::string CBytes::Rest()
{
    const size_t uStart = uPlace;
    uPlace = strBytes.size();
    return strBytes.substr(uStart);
}

bool CBytes::IsEmpty() const
{
    return uPlace == strBytes.size();
}

// --- The calls -----------------------------------------------------------------------------------

static void SetAddress(struct sockaddr *spAddress, socklen_t *upSize, uint32_t I_uHost)
{
    struct sockaddr_in sAddress = {};
    sAddress.sin_family = AF_INET;
    sAddress.sin_addr.s_addr = htonl(I_uHost);
    memcpy(spAddress, &sAddress, std::min<size_t>(*upSize, sizeof sAddress));
    *upSize = sizeof sAddress;
}

// A pair whose one end is the library's and whose other end holds what the server says.
static int Pair(int *hpServer, const std::string &I_strText)
{
    int haEnds[2];
    CHECK(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, haEnds) == 0);
    const ssize_t iSent = send(haEnds[1], I_strText.data(), I_strText.size(), MSG_DONTWAIT);
    CHECK(iSent == static_cast<ssize_t>(I_strText.size()));
    shutdown(haEnds[1], SHUT_WR);
    if (*hpServer != -1) close(*hpServer);
    *hpServer = haEnds[1];
    return haEnds[0];
}

static struct hostent *Host()
{
    static char szName[] = "fuzz.example.com";
    static char caAddress[] = {127, 0, 0, 1};
    static char *cpaAddresses[] = {caAddress, nullptr};
    static struct hostent sHost = {szName, nullptr, AF_INET, sizeof caAddress, cpaAddresses};
    return sWorld.bNoHost ? nullptr : &sHost;
}

static int Memory(const std::string &I_strText)
{
    const int hFile = memfd_create("fuzz", MFD_CLOEXEC);
    CHECK(pwrite(hFile, I_strText.data(), I_strText.size(), 0) != -1);
    return hFile;
}

extern "C" {
int __real_open(const char *cpPath, int iFlags, ...);
ssize_t __real_write(int hFile, const void *vpData, size_t uSize);
char *__real_getenv(const char *cpName);
int __real_connect(int hSocket, const struct sockaddr *spAddress, socklen_t uSize);
int __real_getsockname(int hSocket, struct sockaddr *spAddress, socklen_t *upSize);
unsigned __real_sleep(unsigned uSeconds);
int __real_poll(struct pollfd *spPoll, nfds_t uPolls, int iTime);

int __wrap_open(const char *cpPath, int iFlags, ...)
{
    va_list vaMode;
    va_start(vaMode, iFlags);
    const unsigned uMode = (iFlags & O_CREAT) != 0 ? va_arg(vaMode, unsigned) : 0;
    va_end(vaMode);
    if (!bOn) return __real_open(cpPath, iFlags, uMode);
    const auto pFile = sWorld.mapFiles.find(cpPath);
    if (pFile != sWorld.mapFiles.end()) return Memory(pFile->second);
    return __real_open("/dev/null", iFlags & ~O_CREAT);
}

ssize_t __wrap_write(int hFile, const void *vpData, size_t uSize)
{
    if (!bOn) return __real_write(hFile, vpData, uSize);
    sWorld.strWritten.append(static_cast<const char *>(vpData), uSize);
    return static_cast<ssize_t>(uSize);
}

char *__wrap_getenv(const char *cpName)
{
    if (!bOn) return __real_getenv(cpName);
    const auto pValue = sWorld.mapEnvironment.find(cpName);
    return pValue == sWorld.mapEnvironment.end() ? nullptr : pValue->second.data();
}

int __wrap_connect(int hSocket, const struct sockaddr *, socklen_t)
{
    const int hOurs = Pair(&hServerControl, sWorld.strReplies);
    CHECK(dup3(hOurs, hSocket, O_CLOEXEC) == hSocket);
    close(hOurs);
    if (!sWorld.bDeaf) return 0;
    close(hServerControl);
    hServerControl = -1;
    return 0;
}

int __wrap_getsockname(int hSocket, struct sockaddr *spAddress, socklen_t *upSize)
{
    const socklen_t uRoom = *upSize;
    const int iRet = __real_getsockname(hSocket, spAddress, upSize);
    if (iRet == -1 || spAddress->sa_family == AF_INET) return iRet;
    *upSize = uRoom;
    SetAddress(spAddress, upSize, INADDR_LOOPBACK);
    return 0;
}

int __wrap_getpeername(int, struct sockaddr *spAddress, socklen_t *upSize)
{
    SetAddress(spAddress, upSize, INADDR_LOOPBACK);
    return 0;
}

// The library polls the listener and the control connection together; nothing is waited for.
int __wrap_poll(struct pollfd *spPoll, nfds_t uPolls, int iTime)
{
    if (!bOn || uPolls != 2) return __real_poll(spPoll, uPolls, iTime);
    if (sWorld.bNoData) return __real_poll(spPoll, uPolls, 0);
    spPoll[0].revents = POLLIN;
    spPoll[1].revents = 0;
    return 1;
}

int __wrap_accept4(int, struct sockaddr *spAddress, socklen_t *upSize, int)
{
    SetAddress(spAddress, upSize, sWorld.bStranger ? INADDR_LOOPBACK + 1 : INADDR_LOOPBACK);
    sWorld.bNoData = true; // only one comes
    return Pair(&hServerData, sWorld.strData);
}

struct hostent *__wrap_gethostbyname(const char *)
{
    return Host();
}

struct hostent *__wrap_gethostbyaddr(const void *, socklen_t, int)
{
    return Host();
}

struct passwd *__wrap_getpwuid(uid_t)
{
    static char szName[] = "fuzz";
    static struct passwd sAccount = {};
    sAccount.pw_name = szName;
    return sWorld.bNoHost ? nullptr : &sAccount;
}

unsigned __wrap_sleep(unsigned uSeconds)
{
    return bOn ? 0 : __real_sleep(uSeconds);
}

FILE *__wrap_popen(const char *cpCommand, const char *)
{
    const size_t uRun = sWorld.vecCommands.size();
    sWorld.vecCommands.emplace_back(cpCommand);
    CHECK(uRun < 8);
    return fdopen(Memory(uRun < sWorld.vecAnswers.size() ? sWorld.vecAnswers[uRun] : ""), "r");
}

int __wrap_pclose(FILE *spPipe)
{
    return fclose(spPipe);
}
}

// --- A run ---------------------------------------------------------------------------------------

static void Drain(int hSocket, std::string &O_strText)
{
    char caBlock[4096];
    ssize_t iRead = 1;
    while (hSocket != -1 && iRead > 0)
    {
        iRead = recv(hSocket, caBlock, sizeof caBlock, MSG_DONTWAIT);
        if (iRead > 0) O_strText.append(caBlock, static_cast<size_t>(iRead));
    }
}

void fuzz_Listen()
{
    Drain(hServerControl, sWorld.strHeard);
    Drain(hServerData, sWorld.strStored);
}

static void TakeTrace(char *cpMessage)
{
    CHECK(strlen(cpMessage) < XBSA_TRACE_SIZE);
    sWorld.strTrace.append(cpMessage).append("\n");
}

long fuzz_Init(unsigned I_uLevel, bool I_bStrict, bool I_bInformix)
{
    long lHandle = 0;
    char szVersion[] = "BSA_API_VERSION=1.0.1";
    char *cpaEnvironment[] = {szVersion, nullptr};
    BSA_ObjectOwner sOwner = {"INFORMIX", ""};
    if (!I_bInformix) sOwner.bsa_ObjectOwner[0] = 'P';
    if (I_bStrict) sWorld.mapEnvironment["KORVA_STRICT"] = "1";
    sWorld.mapEnvironment["KORVA_SERVER"] = "srv";
    sWorld.mapEnvironment["KORVA_JOB"] = "job";
    sWorld.mapFiles["/etc/korva2000.ini"] = "SM_BIN_KORVA = /opt/k\n";
    BSASetTrace(TakeTrace, nullptr, static_cast<unsigned char>(I_uLevel));
    CHECK(BSAInit(&lHandle, nullptr, &sOwner, cpaEnvironment) == BSA_RC_SUCCESS);
    sGlobal.sObject.sSMS.iPort = 21;
    return lHandle;
}

// Descriptors, up to a number that a run does not reach.
static uint64_t OpenDescriptors()
{
    uint64_t uOpen = 0;
    for (int hFile = 3; hFile < 20; hFile++)
        if (fcntl(hFile, F_GETFD) != -1) uOpen |= uint64_t{1} << hFile;
    return uOpen;
}

// A task of the utility with two runs leaves all signals blocked but in strict mode: hosts know it so.
static void CheckMask(const sigset_t &I_sBefore)
{
    sigset_t sNow;
    sigprocmask(SIG_SETMASK, &I_sBefore, &sNow);
    if (!sWorld.vecCommands.empty() && sPrivate.iStrict == 0) return;
    for (const int iSignal : {SIGTERM, SIGPIPE, SIGCHLD, SIGALRM})
        CHECK(sigismember(&sNow, iSignal) == sigismember(&I_sBefore, iSignal));
}

// What the library would do when it is unloaded.
static void Forget()
{
    xbsa_StoreControl(-1);
    xbsa_StoreData(-1);
    qab_ClearResults();
    i_ReleaseTrace();
    for (int *hpServer : {&hServerControl, &hServerData})
    {
        if (*hpServer != -1) close(*hpServer);
        *hpServer = -1;
    }
}

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    setenv("TZ", "UTC", 1);
    return freopen("/dev/null", "w", stdout) == nullptr;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *ucpData, size_t uSize)
{
    static const _sGlobal sFirst = sGlobal;
    static const _sPrivate sFirstPrivate = sPrivate;
    sGlobal = sFirst;
    sPrivate = sFirstPrivate;
    sWorld = WORLD{};
    const uint64_t uOpen = OpenDescriptors();
    sigset_t sMask;
    sigprocmask(SIG_SETMASK, nullptr, &sMask);
    CBytes sBytes(ucpData, uSize);

    bOn = true;
    fuzz_One(sBytes);
    fuzz_CheckRecord();
    Forget();
    bOn = false;
    CHECK(OpenDescriptors() == uOpen);
    CheckMask(sMask);
    return 0;
}

// --- Checks that several targets share -----------------------------------------------------------

std::vector<std::string> fuzz_ShellWords(const std::string &I_strCommand)
{
    static const std::string strEnd = " 2>/dev/null";
    CHECK(I_strCommand.size() < XBSA_COM_CMD_SIZE && I_strCommand.size() > strEnd.size());
    const size_t uEnd = I_strCommand.size() - strEnd.size();
    CHECK(I_strCommand.substr(uEnd) == strEnd);

    std::vector<std::string> vecWords;
    bool bQuoted = false;
    bool bWord = false;
    for (size_t uPlace = 0; uPlace < uEnd; uPlace++)
    {
        const char cByte = I_strCommand[uPlace];
        const bool bBlank = cByte == ' ' && !bQuoted;
        if (!bBlank && !bWord) vecWords.emplace_back();
        bWord = !bBlank;
        if (bBlank) continue;
        if (cByte == '\'') bQuoted = !bQuoted;
        else if (bQuoted) vecWords.back() += cByte;
        else if (cByte == '\\') vecWords.back() += I_strCommand[++uPlace];
        else
        {
            CHECK(isalnum(static_cast<unsigned char>(cByte)) ||
                  strchr("_@%+=:,./-", cByte) != nullptr);
            vecWords.back() += cByte;
        }
    }
    CHECK(!bQuoted);
    return vecWords;
}

void fuzz_CheckHeard()
{
    size_t uStart = 0;
    while (uStart < sWorld.strHeard.size())
    {
        const size_t uEnd = sWorld.strHeard.find("\r\n", uStart);
        CHECK(uEnd != std::string::npos);
        const std::string strLine = sWorld.strHeard.substr(uStart, uEnd - uStart);
        uStart = uEnd + 2;
        CHECK(strLine.find_first_of(std::string("\r\n\0", 3)) == std::string::npos);
        const std::string strVerb = strLine.substr(0, strLine.find(' '));
        static const char *const cpaVerbs[] = {"USER", "PASS", "TYPE", "CWD",
                                               "PORT", "STOR", "RETR", "QUIT"};
        CHECK(std::find(std::begin(cpaVerbs), std::end(cpaVerbs), strVerb) != std::end(cpaVerbs));
    }
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
