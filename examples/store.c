/*
 * Store one small object on an FTP server, with the calls of a backup in order.
 *
 *   cc store.c -o store -lxbsa
 *   ./store HOST:PORT USER PASSWORD NAME      (only an example: do not pass passwords as arguments)
 */
#include <stdio.h>
#include <string.h>
#include <xbsa.h>

static int Failed(const char *cpCall, int iCode)
{
    char szText[1536] = "";
    BSA_UInt32 uSize = sizeof(szText);
    if (iCode == BSA_RC_SUCCESS) return 0;
    BSAGetLastError(&uSize, szText);
    fprintf(stderr, "%s: %d %s\n", cpCall, iCode, szText);
    return 1;
}

static int Store(long lHandle, BSA_ObjectDescriptor *spObject)
{
    char szData[] = "Hello from a backup.\n";
    BSA_DataBlock sBlock = {sizeof(szData) - 1, 0, szData};
    int iFailed = Failed("BSACreateObject", BSACreateObject(lHandle, spObject, NULL));
    if (iFailed) return 1;
    iFailed = Failed("BSASendData", BSASendData(lHandle, &sBlock));
    /* Always call this: it closes the connections. The object is stored only if it returns 0. */
    return Failed("BSAEndData", BSAEndData(lHandle)) || iFailed;
}

int main(int argc, char **argv)
{
    char szServer[300];
    char szVersion[] = "BSA_API_VERSION=1.0.1";
    char *cpaEnvironment[] = {szVersion, szServer, NULL};
    BSA_ObjectDescriptor sObject;
    long lHandle = 0;
    int iFailed;

    memset(&sObject, 0, sizeof(sObject));
    if (argc != 5) return 2;
    snprintf(szServer, sizeof(szServer), "BSA_SERVICE_HOST=%s", argv[1]);
    snprintf(sObject.objectOwner.bsa_ObjectOwner, 64, "user=%s:pass=%s", argv[2], argv[3]);
    snprintf(sObject.objectName.objectSpaceName, 1024, "%s", argv[4]);
    strcpy(sObject.objectName.pathName, ".");
    sObject.copyType = BSA_CopyType_BACKUP;
    sObject.objectType = BSA_ObjectType_FILE;

    iFailed = Failed("BSAInit", BSAInit(&lHandle, NULL, &sObject.objectOwner, cpaEnvironment)) ||
              Failed("BSABeginTxn", BSABeginTxn(lHandle));
    if (iFailed) return 1;
    iFailed = Store(lHandle, &sObject);
    iFailed = Failed("BSAEndTxn", BSAEndTxn(lHandle, BSA_Vote_COMMIT)) || iFailed;
    iFailed = Failed("BSATerminate", BSATerminate(lHandle)) || iFailed;
    return iFailed;
}
