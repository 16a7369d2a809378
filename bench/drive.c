// Drives the library as a backup tool does, and does nothing else.
//
//   drive LIBRARY store|restore PORT BLOCK BYTES COUNT [FILE]
//
// Moves COUNT objects of BYTES bytes in blocks of BLOCK. A store reads FILE if given. Variables:
// BENCH_OWNER=INFORMIX selects Informix mode; BENCH_LOGIN is the owner of the objects, which are
// then in the login's directory; with BENCH_READY a restore waits until the whole object has
// arrived before it reads the first block; with BENCH_OPEN the clock starts when the last object is
// open. Prints wall and CPU seconds of the transfers, and how many bytes of memory the library made
// resident.
#include "peer.h"

#include <dlfcn.h>
#include <fcntl.h>

#include "xbsa_session.h"

static struct
{
    int (*fpInit)(long *, BSA_SecurityToken *, BSA_ObjectOwner *, char **);
    int (*fpBegin)(long);
    int (*fpCreate)(long, BSA_ObjectDescriptor *, BSA_DataBlock *);
    int (*fpSend)(long, BSA_DataBlock *);
    int (*fpGet)(long, BSA_ObjectDescriptor *, BSA_DataBlock *);
    int (*fpRead)(long, BSA_DataBlock *);
    int (*fpEndData)(long);
    int (*fpEnd)(long, BSA_Vote);
} sCalls;

static const _sGlobal *spGlobal;
static long lHandle;
static int hFile = -1;
static double dStart;
static double dCpu;

static void StartClock(void)
{
    dCpu = Cpu();
    dStart = Now();
}

static void Load(const char *cpLibrary)
{
    static const char *const apNames[] = {"BSAInit",     "BSABeginTxn",  "BSACreateObject",
                                          "BSASendData", "BSAGetObject", "BSAGetData",
                                          "BSAEndData",  "BSAEndTxn"};
    void *vpLibrary = dlopen(cpLibrary, RTLD_NOW | RTLD_LOCAL);
    Check(vpLibrary != NULL, cpLibrary);
    spGlobal = dlsym(vpLibrary, "sGlobal");
    for (size_t uCall = 0; uCall < sizeof apNames / sizeof *apNames; uCall++)
    {
        ((void **)&sCalls)[uCall] = dlsym(vpLibrary, apNames[uCall]);
    }
}

// Resident bytes that are private to this process, and those of the library's file.
static long Resident(void)
{
    char szLine[512];
    char szName[512] = "";
    long lBytes = 0;
    long lKilobytes = 0;
    FILE *spMaps = fopen("/proc/self/smaps", "r");
    while (spMaps != NULL && fgets(szLine, sizeof szLine, spMaps) != NULL)
    {
        sscanf(szLine, "%*x-%*x %*s %*s %*s %*s %511s", szName);
        int bLibrary = strstr(szName, "libxbsa") != NULL;
        if (sscanf(szLine, bLibrary ? "Rss: %ld" : "Anonymous: %ld", &lKilobytes) == 1)
        {
            lBytes += lKilobytes * 1024;
        }
    }
    if (spMaps != NULL) fclose(spMaps);
    return lBytes;
}

static void Good(int iCode, const char *cpCall)
{
    if (iCode == BSA_RC_SUCCESS) return;
    fprintf(stderr, "%s: %d\n", cpCall, iCode);
    exit(1);
}

static void Start(int iPort)
{
    char szHost[64];
    char szVersion[] = "BSA_API_VERSION=1.0.1";
    char *apEnvironment[] = {szVersion, szHost, NULL};
    const char *cpOwner = getenv("BENCH_OWNER");
    BSA_ObjectOwner sOwner = {"", ""};
    snprintf(sOwner.bsa_ObjectOwner, sizeof sOwner.bsa_ObjectOwner, "%s", cpOwner ? cpOwner : "X");
    snprintf(szHost, sizeof szHost, "BSA_SERVICE_HOST=%s:%d",
             getenv("BENCH_HOST") ? getenv("BENCH_HOST") : "127.0.0.1", iPort);
    Good(sCalls.fpInit(&lHandle, NULL, &sOwner, apEnvironment), "BSAInit");
}

static void Describe(BSA_ObjectDescriptor *spObject, const char *cpName)
{
    const char *cpLogin = getenv("BENCH_LOGIN");
    memset(spObject, 0, sizeof *spObject);
    snprintf(spObject->objectOwner.bsa_ObjectOwner, sizeof spObject->objectOwner.bsa_ObjectOwner,
             "%s", cpLogin != NULL ? cpLogin : "user=backup:pass=secret");
    snprintf(spObject->objectName.objectSpaceName, sizeof spObject->objectName.objectSpaceName,
             "%s", cpName);
    snprintf(spObject->objectName.pathName, sizeof spObject->objectName.pathName, "%s",
             cpLogin != NULL ? "." : "/data");
    spObject->copyType = BSA_CopyType_BACKUP;
    spObject->objectType = BSA_ObjectType_FILE;
    spObject->objectStatus = BSA_ObjectStatus_MOST_RECENT;
}

static void Store(BSA_ObjectDescriptor *spObject, BSA_UInt16 uBlock, long long llBytes)
{
    BSA_DataBlock sBlock = {uBlock, uBlock, Block()};
    Good(sCalls.fpCreate(lHandle, spObject, NULL), "BSACreateObject");
    if (getenv("BENCH_OPEN") != NULL) StartClock();
    for (; llBytes > 0; llBytes -= sBlock.bufferLen)
    {
        if (llBytes < uBlock) sBlock.bufferLen = (BSA_UInt16)llBytes;
        if (hFile != -1) Check(read(hFile, sBlock.bufferPtr, sBlock.bufferLen) > 0, "read");
        Good(sCalls.fpSend(lHandle, &sBlock), "BSASendData");
    }
}

// Waits with one call until the whole object has arrived, so that no receive finds less than a
// block.
static void AwaitAll(size_t uBytes)
{
    static char acAll[65536];
    (void)!recv(spGlobal->sSession.SData, acAll, uBytes, MSG_PEEK | MSG_WAITALL);
}

static void Restore(BSA_ObjectDescriptor *spObject, BSA_UInt16 uBlock, long long llBytes)
{
    BSA_DataBlock sBlock = {uBlock, uBlock, Block()};
    Good(sCalls.fpGet(lHandle, spObject, NULL), "BSAGetObject");
    if (getenv("BENCH_OPEN") != NULL) StartClock();
    if (getenv("BENCH_READY") != NULL) AwaitAll((size_t)llBytes);
    do Good(sCalls.fpRead(lHandle, &sBlock), "BSAGetData");
    while (sBlock.numBytes == uBlock);
}

int main(int iArguments, char **cppArgument)
{
    BSA_ObjectDescriptor sObject;
    if (iArguments < 7) return 2;
    int bStore = strcmp(cppArgument[2], "store") == 0;
    BSA_UInt16 uBlock = (BSA_UInt16)atoi(cppArgument[4]);
    if (iArguments > 7) hFile = open(cppArgument[7], O_RDONLY);
    Block();
    Resident();
    long lBefore = Resident();
    Load(cppArgument[1]);
    Start(atoi(cppArgument[3]));
    StartClock();
    for (int iLeft = atoi(cppArgument[6]); iLeft > 0; iLeft--)
    {
        Good(sCalls.fpBegin(lHandle), "BSABeginTxn");
        Describe(&sObject, cppArgument[5]); // the name is the number of bytes that the server sends
        if (bStore) Store(&sObject, uBlock, atoll(cppArgument[5]));
        else Restore(&sObject, uBlock, atoll(cppArgument[5]));
        Good(sCalls.fpEndData(lHandle), "BSAEndData");
        Good(sCalls.fpEnd(lHandle, BSA_Vote_COMMIT), "BSAEndTxn");
    }
    double dWall = Now() - dStart;
    printf("{\"wall\": %.6f, \"cpu\": %.6f, \"resident\": %ld}\n", dWall, Cpu() - dCpu,
           Resident() - lBefore);
    return 0;
}
