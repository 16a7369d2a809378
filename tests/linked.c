/*
 * A host that is linked with the library, uses its record by name and ends through exit():
 *
 *   linked NUMBER
 *
 * Prints "ok", or what was not as expected. NUMBER says what it does, see main.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "xbsa.h"
#include "xbsa_session.h"

static long lHandle;
static BSA_ObjectDescriptor saMine[3]; /* freed, the middle one would end the process */
static char caMine[3 * 1536];

static void Expect(const char *cpWhat, long lGot, long lWant)
{
    if (lGot == lWant) return;
    printf("%s: %ld, not %ld\n", cpWhat, lGot, lWant);
    exit(1);
}

/* Reads up to the end of the connection; returns the bytes. */
static long Drain(int hSocket, char *cpGot)
{
    long lSum = 0, lRead = 1;
    for (; lRead > 0; lSum += lRead) lRead = read(hSocket, cpGot + lSum, 9);
    close(hSocket);
    return lRead == 0 ? lSum : lRead;
}

/* Begins a session, after the one before. */
static void Begin(void)
{
    BSA_ObjectOwner sOwner = {"PLAIN", ""};
    char *cpaNothing[] = {NULL};
    BSAEndTxn(lHandle, BSA_Vote_COMMIT);
    Expect("BSAInit", BSAInit(&lHandle, NULL, &sOwner, cpaNothing), 0);
    Expect("BSABeginTxn", BSABeginTxn(lHandle), 0);
}

/* The record of the program is that of the library, before a call and after. */
static void Name(void)
{
    Expect("SControl", sGlobal.sSession.SControl, -1);
    Begin();
    Expect("lBSAHandle", sGlobal.sSession.lBSAHandle, getpid());
    sGlobal.sSession.lBSAHandle++;
    Expect("BSATerminate", BSATerminate(lHandle), BSA_RC_INVALID_HANDLE);
}

/* Moves a block each way and ends the object, all on sockets of the host's own. */
static void Inject(void)
{
    static const char szReplies[] = "226 done\r\n221 bye\r\n";
    int haData[2], haControl[2];
    char caBlock[] = "hello", caGot[99] = "";
    BSA_DataBlock sBlock = {5, 0, caBlock};
    Begin();
    Expect("socketpair", socketpair(AF_UNIX, SOCK_STREAM, 0, haData), 0);
    Expect("socketpair", socketpair(AF_UNIX, SOCK_STREAM, 0, haControl), 0);
    Expect("write", write(haData[1], "world", 5) + write(haControl[1], szReplies, 19), 24);
    sGlobal.sSession.SData = haData[0];
    sGlobal.sSession.SControl = haControl[0];
    Expect("BSASendData", BSASendData(lHandle, &sBlock), 0);
    Expect("BSAGetData", BSAGetData(lHandle, &sBlock), 0);
    Expect("data", memcmp(caBlock, "world", 5), 0);
    sGlobal.sSession.iLastCall |= 2; /* as BSACreateObject leaves it */
    Expect("BSAEndData", BSAEndData(lHandle), 0);
    Expect("data sent", Drain(haData[1], caGot), 5);
    Expect("commands sent", Drain(haControl[1], caGot), 6);
    Expect("QUIT", memcmp(caGot, "QUIT\r\n", 6), 0);
}

/* A copy of the record comes back in the next session: the first one, then that of a session. */
static void Copy(void)
{
    static _sGlobal sFirst, sLater;
    sFirst = sGlobal;
    Inject();
    sLater = sGlobal;
    sGlobal = sFirst;
    Inject();
    sGlobal = sLater;
    Inject();
    sGlobal = sLater; /* whose trace buffer is no more */
    Expect("BSATerminate", BSATerminate(lHandle), 0);
}

/* What the host put into the record stays its own. */
static void Own(void)
{
    BSA_QueryDescriptor sQuery = {0};
    BSA_ObjectDescriptor sGot;
    for (int iIndex = 0; iIndex < 3; iIndex++)
    {
        Begin();
        sGlobal.cpTraceBuffer = caMine + 1536;
        Expect("BSAQueryObject", BSAQueryObject(lHandle, &sQuery, &sGot), 0);
        sGlobal.spQueryResult[iIndex] = &saMine[1];
        sGlobal.iQueryIndex = iIndex;
        Expect("next", BSAGetNextQueryObject(lHandle, &sGot), 0);
        Expect("next", BSAGetNextQueryObject(lHandle, &sGot), BSA_RC_NO_MORE_DATA);
        sGlobal.iQueryIndex = 0;
    }
}

int main(int argc, char **argv)
{
    static void (*const fpaAll[])(void) = {Name, Inject, Copy, Own};
    fpaAll[argc > 1 ? atoi(argv[1]) : 0]();
    printf("ok\n");
    exit(0);
}
