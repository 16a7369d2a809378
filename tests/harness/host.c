/*
 * A host with unusual conditions that backs up an object, restores it and queries it:
 *
 *   host LIBRARY OWNER SERVICE_HOST CONDITION...
 *
 * Prints "ok", or the failed call and its result.
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
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
    STACK = 128 << 10, /* stack of the session's thread */
    SIGNALS = 65
};

/* What the library must not change. */
typedef struct
{
    void (*fpaHandlers[SIGNALS])(int);
    sigset_t sMask;
    int iOpen;
} STATE;

static char **cppArguments; /* LIBRARY OWNER SERVICE_HOST */
static void *vpLibrary;
static int hReport, bFork, bThread; /* the session continues in a child, too; it runs in a thread */
static unsigned char ucaData[SIZE];

/* Keeps only the first failure; 0 is none. */
static void Check(const char *cpCall, long lCode)
{
    if (lCode == 0) return;
    dprintf(hReport, "%s: %ld\n", cpCall, lCode);
    _exit(1);
}

/* Calls a function of the library and expects 0. */
#define CALL(function, ...)                                                                        \
    Check(#function,                                                                               \
          ((__extension__(__typeof__(&function)) dlsym(vpLibrary, #function)))(__VA_ARGS__))

static void Look(STATE *spState)
{
    memset(spState, 0, sizeof *spState);
    for (int iSignal = 1; iSignal < SIGNALS; iSignal++)
    {
        struct sigaction sAction = {0};
        sigaction(iSignal, NULL, &sAction);
        spState->fpaHandlers[iSignal] = sAction.sa_handler;
    }
    pthread_sigmask(SIG_SETMASK, NULL, &spState->sMask);
    for (int iNumber = 0; iNumber < CROWD + 200; iNumber++)
        spState->iOpen += fcntl(iNumber, F_GETFD) != -1;
}

static void Compare(const STATE *spBefore)
{
    STATE sNow;
    Look(&sNow);
    Check("open", sNow.iOpen - spBefore->iOpen);
    Check("handlers", memcmp(sNow.fpaHandlers, spBefore->fpaHandlers, sizeof sNow.fpaHandlers));
    Check("mask", memcmp(&sNow.sMask, &spBefore->sMask, sizeof sNow.sMask));
    Check("child", waitpid(-1, NULL, WNOHANG) != -1 || errno != ECHILD);
}

static long Open(void)
{
    char szHost[300];
    BSA_ObjectOwner sOwner;
    char *cpaEnvironment[] = {"BSA_API_VERSION=1.0.1", szHost, NULL};
    long lHandle = 0;
    snprintf(szHost, sizeof szHost, "BSA_SERVICE_HOST=%s", cppArguments[2]);
    snprintf(sOwner.bsa_ObjectOwner, sizeof sOwner.bsa_ObjectOwner, "%s", cppArguments[1]);
    CALL(BSAInit, &lHandle, NULL, &sOwner, cpaEnvironment);
    return lHandle;
}

static void Store(long lHandle, BSA_ObjectDescriptor *spObject)
{
    CALL(BSACreateObject, lHandle, spObject, NULL);
    for (int iDone = 0; iDone < SIZE; iDone += BLOCK)
    {
        int iLength = SIZE - iDone < BLOCK ? SIZE - iDone : BLOCK;
        BSA_DataBlock sBlock = {(BSA_UInt16)iLength, 0, (char *)ucaData + iDone};
        CALL(BSASendData, lHandle, &sBlock);
    }
    CALL(BSAEndData, lHandle);
}

static void Restore(long lHandle, BSA_ObjectDescriptor *spObject)
{
    int iDone = 0;
    static char caGot[BLOCK];
    BSA_DataBlock sBlock = {BLOCK, BLOCK, caGot};
    CALL(BSAGetObject, lHandle, spObject, NULL);
    while (sBlock.numBytes == BLOCK)
    {
        CALL(BSAGetData, lHandle, &sBlock);
        Check("size", iDone + sBlock.numBytes > SIZE);
        Check("data", memcmp(caGot, ucaData + iDone, sBlock.numBytes));
        iDone += sBlock.numBytes;
    }
    Check("size", SIZE - iDone);
    CALL(BSAEndData, lHandle);
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
    for (int iStep = 0; iStep < 3; iStep++)
    {
        CALL(BSABeginTxn, lHandle);
        if (iStep == 0) Store(lHandle, &sObject);
        if (iStep == 1) Restore(lHandle, &sObject);
        if (iStep == 2) CALL(BSAQueryObject, lHandle, &sQuery, &sObject);
        CALL(BSAEndTxn, lHandle, BSA_Vote_COMMIT);
    }
}

static void *Run(void *vpNothing)
{
    STATE sBefore;
    int iStatus = 0;
    Look(&sBefore);
    vpLibrary = dlopen(cppArguments[0], RTLD_NOW);
    if (vpLibrary == NULL) Check(dlerror(), 1);
    long lHandle = Open();
    if (bFork && fork() == 0)
    {
        Transfer(lHandle);
        _exit(0);
    }
    if (bFork) wait(&iStatus);
    Check("fork", iStatus);
    Transfer(lHandle);
    CALL(BSATerminate, lHandle);
    ((__extension__(void (*)(void)) dlsym(vpLibrary, "i_close_trace")))(); /* musl never unloads */
    dlclose(vpLibrary);
    /* If it is still loaded, its journal is open. */
    sBefore.iOpen += dlopen(cppArguments[0], RTLD_NOW | RTLD_NOLOAD) != NULL;
    Compare(&sBefore);
    return vpNothing;
}

static void *Sleep(void *vpNothing)
{
    for (;;) pause();
    return vpNothing;
}

static pthread_t StartThread(void *(*fpRun)(void *))
{
    pthread_t sThread;
    pthread_attr_t sAttributes;
    pthread_attr_init(&sAttributes);
    pthread_attr_setstacksize(&sAttributes, STACK);
    Check("pthread_create", pthread_create(&sThread, &sAttributes, fpRun, NULL));
    return sThread;
}

/* Many open, or 0, 1 and 2 closed, and so on: they must stay so. */
static void Become(const char *cpCondition)
{
    sigset_t sAll;
    struct rlimit sLimit = {CROWD + 200, CROWD + 200};
    sigfillset(&sAll);
    bFork |= strcmp(cpCondition, "fork") == 0;
    bThread |= strcmp(cpCondition, "thread") == 0;
    if (strcmp(cpCondition, "closed") == 0)
        for (int iNumber = 0; iNumber < 3; iNumber++) close(iNumber);
    if (strcmp(cpCondition, "crowd") == 0 && setrlimit(RLIMIT_NOFILE, &sLimit) == 0)
        while (open("/dev/null", O_RDWR | O_CLOEXEC) < CROWD) continue;
    if (strcmp(cpCondition, "blocked") == 0) pthread_sigmask(SIG_SETMASK, &sAll, NULL);
    if (strcmp(cpCondition, "ignored") == 0)
        for (int iSignal = 1; iSignal < SIGNALS; iSignal++) signal(iSignal, SIG_IGN);
    if (strcmp(cpCondition, "threads") == 0)
        for (int iThread = 0; iThread < THREADS; iThread++) StartThread(Sleep);
}

int main(int argc, char **argv)
{
    cppArguments = argv + 1;
    hReport = fcntl(1, F_DUPFD_CLOEXEC, CROWD + 100);
    if (hReport == -1) hReport = fcntl(1, F_DUPFD_CLOEXEC, 100);
    for (int iByte = 0; iByte < SIZE; iByte++) ucaData[iByte] = (unsigned char)(iByte * 7 / 5);
    for (int iArgument = 4; iArgument < argc; iArgument++) Become(argv[iArgument]);
    if (bThread) pthread_join(StartThread(Run), NULL);
    else Run(NULL);
    dprintf(hReport, "ok\n");
    _exit(0);
}
