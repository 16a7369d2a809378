/*
 * A host that does odd things to itself, then backs an object up, restores it and asks for it:
 *
 *   host LIBRARY OWNER SERVICE_HOST CONDITION...
 *
 * Prints "ok", the depth of the stack in bytes and the pages that loading cost, each 0 unless asked
 * for; or the call that went wrong and its result.
 */
#define _GNU_SOURCE
#include <dirent.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "xbsa.h"

enum
{
    SIZE = 300001, /* bytes of the object, a few blocks */
    BLOCK = 65535,
    CROWD = 5000, /* open descriptors */
    THREADS = 64,
    STACK = 256 << 10,
    UNLOADS = 1000,
    SETTLED = 100, /* after so many loads the C library has what it keeps */
    MARGIN = 1024, /* below the frame that paints the stack */
    PAINT = 0xA5
};

/* What a guest must leave as it was. */
typedef struct
{
    void *vpaHandlers[65];
    sigset_t sMask;
    int iDescriptors;
} STATE;

static char **cppArguments; /* LIBRARY OWNER SERVICE_HOST */
static void *vpLibrary;
static int hReport;
static int bFork;            /* the session goes on in a child, too */
static const char *cpFailed; /* a call, and its result */
static int iFailure;
static long lDepth;             /* of the stack, in bytes */
static long lGrown;             /* pages of memory that the loads have cost */
static unsigned char *ucpStack; /* of the thread that runs the session, or null */
static unsigned char ucaData[SIZE];

/* The first failure is the one to know. */
static void Fail(const char *cpCall, int iCode)
{
    if (cpFailed != NULL) return;
    cpFailed = cpCall;
    iFailure = iCode;
}

static void Check(const char *cpCall, int iCode)
{
    if (iCode != 0) Fail(cpCall, iCode);
}

/* Calls a function of the library; 0 is expected. After a failure no more is called. */
#define CALL(function, ...)                                                                        \
    do                                                                                             \
    {                                                                                              \
        if (cpFailed == NULL)                                                                      \
            Check(#function, ((__extension__(__typeof__(&function)) dlsym(vpLibrary, #function)))( \
                                 __VA_ARGS__));                                                    \
    } while (0)

static int CountOpen(void)
{
    int iCount = 0;
    DIR *spFolder = opendir("/proc/self/fd");
    while (spFolder != NULL && readdir(spFolder) != NULL) iCount++;
    if (spFolder != NULL) closedir(spFolder);
    return iCount;
}

static void Look(STATE *spState)
{
    memset(spState, 0, sizeof *spState);
    for (int iSignal = 1; iSignal < 65; iSignal++)
    {
        struct sigaction sAction = {0};
        sigaction(iSignal, NULL, &sAction);
        memcpy(&spState->vpaHandlers[iSignal], &sAction.sa_handler, sizeof(void *));
    }
    pthread_sigmask(SIG_SETMASK, NULL, &spState->sMask);
    spState->iDescriptors = CountOpen();
}

static void Compare(const STATE *spBefore)
{
    STATE sNow;
    Look(&sNow);
    if (sNow.iDescriptors != spBefore->iDescriptors) Fail("open", sNow.iDescriptors);
    if (memcmp(sNow.vpaHandlers, spBefore->vpaHandlers, sizeof sNow.vpaHandlers) != 0 ||
        memcmp(&sNow.sMask, &spBefore->sMask, sizeof sNow.sMask) != 0)
    {
        Fail("signals", 1);
    }
    if (waitpid(-1, NULL, WNOHANG) != -1 || errno != ECHILD) Fail("child", 1);
}

static void Load(void)
{
    vpLibrary = dlopen(cppArguments[0], RTLD_NOW);
    if (vpLibrary != NULL) return;
    dprintf(hReport, "%s\n", dlerror());
    _exit(1);
}

static long Open(void)
{
    static char szVersion[] = "BSA_API_VERSION=1.0.1";
    static char szHost[300];
    static BSA_ObjectOwner sOwner;
    char *cpaEnvironment[] = {szVersion, szHost, NULL};
    long lHandle = 0;
    snprintf(szHost, sizeof szHost, "BSA_SERVICE_HOST=%s", cppArguments[2]);
    snprintf(sOwner.bsa_ObjectOwner, sizeof sOwner.bsa_ObjectOwner, "%s", cppArguments[1]);
    CALL(BSAInit, &lHandle, NULL, &sOwner, cpaEnvironment);
    return lHandle;
}

static void Store(long lHandle, BSA_ObjectDescriptor *spObject)
{
    CALL(BSABeginTxn, lHandle);
    CALL(BSACreateObject, lHandle, spObject, NULL);
    for (int iDone = 0; iDone < SIZE; iDone += BLOCK)
    {
        int iLength = SIZE - iDone < BLOCK ? SIZE - iDone : BLOCK;
        BSA_DataBlock sBlock = {(BSA_UInt16)iLength, 0, (char *)ucaData + iDone};
        CALL(BSASendData, lHandle, &sBlock);
    }
    CALL(BSAEndData, lHandle);
    CALL(BSAEndTxn, lHandle, BSA_Vote_COMMIT);
}

static void Restore(long lHandle, BSA_ObjectDescriptor *spObject)
{
    int iDone = 0;
    char *cpGot = malloc(BLOCK);
    BSA_DataBlock sBlock = {BLOCK, BLOCK, cpGot};
    CALL(BSABeginTxn, lHandle);
    CALL(BSAGetObject, lHandle, spObject, NULL);
    while (cpFailed == NULL && sBlock.numBytes == BLOCK)
    {
        CALL(BSAGetData, lHandle, &sBlock);
        if (iDone + sBlock.numBytes > SIZE || memcmp(cpGot, ucaData + iDone, sBlock.numBytes) != 0)
        {
            Fail("data", iDone);
        }
        iDone += sBlock.numBytes;
    }
    if (iDone != SIZE) Fail("size", iDone);
    CALL(BSAEndData, lHandle);
    CALL(BSAEndTxn, lHandle, BSA_Vote_COMMIT);
    free(cpGot);
}

static void Transfer(long lHandle)
{
    static BSA_ObjectDescriptor sObject;
    static BSA_QueryDescriptor sQuery;
    strcpy(sObject.objectOwner.bsa_ObjectOwner, "user=backup:pass=secret");
    strcpy(sObject.objectName.objectSpaceName, "obj");
    strcpy(sObject.objectName.pathName, ".");
    sObject.copyType = sQuery.copyType = BSA_CopyType_BACKUP;
    sQuery.objectName = sObject.objectName;
    sQuery.objectType = BSA_ObjectType_FILE;
    sQuery.objectStatus = BSA_ObjectStatus_MOST_RECENT;
    Store(lHandle, &sObject);
    Restore(lHandle, &sObject);
    CALL(BSABeginTxn, lHandle);
    CALL(BSAQueryObject, lHandle, &sQuery, &sObject);
    CALL(BSAEndTxn, lHandle, BSA_Vote_COMMIT);
}

static void ForkTransfer(long lHandle)
{
    int iStatus = 0;
    pid_t iChild = fork();
    if (iChild == 0)
    {
        Transfer(lHandle);
        _exit(cpFailed != NULL);
    }
    if (waitpid(iChild, &iStatus, 0) == iChild && iStatus != 0) Fail("fork", iStatus);
}

/* Paints what lies deeper than this frame, or looks how much of that was used since. */
static __attribute__((noinline)) void StackUse(int bLook)
{
    unsigned char *ucpHere = __builtin_frame_address(0);
    unsigned char *ucpUsed = ucpStack;
    if (ucpStack == NULL) return;
    if (!bLook) memset(ucpStack, PAINT, (size_t)(ucpHere - ucpStack) - MARGIN);
    while (*ucpUsed == PAINT) ucpUsed++;
    if (bLook) lDepth = ucpHere - ucpUsed;
}

static void *Run(void *vpNothing)
{
    STATE sBefore;
    Look(&sBefore);
    Load();
    StackUse(0);
    long lHandle = Open();
    if (bFork) ForkTransfer(lHandle);
    Transfer(lHandle);
    CALL(BSATerminate, lHandle);
    StackUse(1);
    ((__extension__(void (*)(void)) dlsym(vpLibrary, "i_close_trace")))(); /* musl never unloads */
    dlclose(vpLibrary);
    Compare(&sBefore);
    return vpNothing;
}

static void *Sleep(void *vpNothing)
{
    for (;;) pause();
    return vpNothing;
}

/* With many open, with 0, 1 and 2 closed, and so on: each stays so. */
static void Become(const char *cpCondition)
{
    pthread_t sThread;
    sigset_t sAll;
    struct rlimit sLimit = {CROWD + 200, CROWD + 200};
    sigfillset(&sAll);
    if (strcmp(cpCondition, "closed") == 0)
        for (int iNumber = 0; iNumber < 3; iNumber++) close(iNumber);
    if (strcmp(cpCondition, "crowd") == 0 && setrlimit(RLIMIT_NOFILE, &sLimit) == 0)
        while (open("/dev/null", O_RDWR | O_CLOEXEC) < CROWD) continue;
    if (strcmp(cpCondition, "blocked") == 0) pthread_sigmask(SIG_SETMASK, &sAll, NULL);
    if (strcmp(cpCondition, "ignored") == 0)
        for (int iSignal = 1; iSignal < 65; iSignal++) signal(iSignal, SIG_IGN);
    if (strcmp(cpCondition, "threads") == 0)
        for (int iThread = 0; iThread < THREADS; iThread++)
            if (pthread_create(&sThread, NULL, Sleep, NULL) != 0) Fail("thread", iThread);
    if (strcmp(cpCondition, "fork") == 0) bFork = 1;
}

/* In a thread that has so much stack and no more. */
static void RunInThread(void)
{
    pthread_t sThread;
    pthread_attr_t sAttributes;
    ucpStack = mmap(NULL, STACK, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    pthread_attr_init(&sAttributes);
    pthread_attr_setstack(&sAttributes, ucpStack, STACK);
    int iCode = pthread_create(&sThread, &sAttributes, Run, NULL);
    if (iCode != 0) Fail("pthread_create", iCode);
    else pthread_join(sThread, NULL);
}

static long ResidentPages(void)
{
    long lSize = 0;
    long lResident = 0;
    FILE *spFile = fopen("/proc/self/statm", "re");
    if (spFile == NULL || fscanf(spFile, "%ld %ld", &lSize, &lResident) != 2) Fail("statm", errno);
    if (spFile != NULL) fclose(spFile);
    return lResident;
}

/* Each time with a session and its log open. */
static void Unload(void)
{
    STATE sBefore;
    long lPages = 0;
    Look(&sBefore);
    for (int iCycle = 0; iCycle < UNLOADS && cpFailed == NULL; iCycle++)
    {
        if (iCycle == SETTLED) lPages = ResidentPages();
        Load();
        Open();
        dlclose(vpLibrary);
    }
    Compare(&sBefore);
    lGrown = ResidentPages() - lPages;
}

int main(int argc, char **argv)
{
    cppArguments = argv + 1;
    hReport = fcntl(1, F_DUPFD_CLOEXEC, CROWD + 100);
    if (hReport == -1) hReport = fcntl(1, F_DUPFD_CLOEXEC, 100);
    for (int iByte = 0; iByte < SIZE; iByte++) ucaData[iByte] = (unsigned char)(iByte * 7 / 5);
    int bThread = 0;
    for (int iArgument = 4; iArgument < argc; iArgument++)
    {
        Become(argv[iArgument]);
        if (strcmp(argv[iArgument], "unloaded") == 0) Unload();
        if (strcmp(argv[iArgument], "thread") == 0) bThread = 1;
    }
    if (bThread) RunInThread();
    else Run(NULL);
    if (cpFailed == NULL) dprintf(hReport, "ok %ld %ld\n", lDepth, lGrown);
    else dprintf(hReport, "%s: %d\n", cpFailed, iFailure);
    _exit(0);
}
