// The reply reader, in a whole session: a server that says anything at any time.
#include "fuzz.h"

static const char szSecret[] = "S3CRET-pw";

static void Transfer(long lHandle, BSA_ObjectDescriptor *spObject, unsigned I_uSize, bool bRestore)
{
    const size_t uPlace = sWorld.strReplies.find("150");
    const std::string strObject(I_uSize * 37, 'd');
    std::string strBlock = bRestore ? std::string(10000, '-') : strObject;
    BSA_DataBlock sBlock = {static_cast<BSA_UInt16>(strBlock.size()), 0, strBlock.data()};
    const BSA_ObjectDescriptor sBefore = *spObject;
    sWorld.strData = strObject;
    const int iRet = (bRestore ? BSAGetObject : BSACreateObject)(lHandle, spObject, nullptr);
    CHECK(iRet == 0 || iRet == 3);
    CHECK(!bRestore || memcmp(&sBefore, spObject, sizeof sBefore) == 0);
    if (iRet == 0)
    {
        CHECK(bRestore || uPlace != std::string::npos);
        CHECK((bRestore ? BSAGetData : BSASendData)(lHandle, &sBlock) == 0);
        CHECK(!bRestore || strBlock.substr(0, sBlock.numBytes) == strObject);
    }
    const int iEnd = BSAEndData(lHandle);
    fuzz_Listen();
    CHECK(iEnd == 0 || iEnd == 3);
    if (iEnd != 0 || bRestore) return;
    CHECK(iRet == 0 && sWorld.strStored == strObject); // a backup counts when the server says so
    CHECK(sWorld.strReplies.find("226", uPlace) != std::string::npos);
}

void fuzz_One(std::string &X_strBytes)
{
    const unsigned uMode = fuzz_Byte(X_strBytes);
    const unsigned uWorld = fuzz_Byte(X_strBytes);
    const unsigned uSize = fuzz_Byte(X_strBytes);
    sWorld.strReplies = X_strBytes;
    sWorld.bNoData = (uWorld & 1) != 0;
    sWorld.bStranger = (uWorld & 2) != 0;
    sWorld.bDeaf = (uWorld & 4) != 0;
    sWorld.bNoHost = (uWorld & 8) != 0;

    const long lHandle = fuzz_Init(uMode & 3, (uMode & 4) != 0);
    BSA_ObjectDescriptor sObject = {};
    const char *cpUser = (uMode & 8) != 0 ? XBSA_SECURE_USER : "fuzz";
    snprintf(sObject.objectOwner.bsa_ObjectOwner, sizeof sObject.objectOwner.bsa_ObjectOwner,
             "user=%s:pass=%s", cpUser, szSecret);
    strcpy(sObject.objectName.objectSpaceName, "12345");
    strcpy(sObject.objectName.pathName, (uMode & 16) != 0 ? "SMS" : "/data");
    sObject.copyType = BSA_CopyType_BACKUP;

    CHECK(BSABeginTxn(lHandle) == 0);
    Transfer(lHandle, &sObject, uSize, (uMode & 32) != 0);
    CHECK(sPrivate.hOwnControl == -1 && sPrivate.hOwnData == -1);
    CHECK(BSAEndTxn(lHandle, BSA_Vote_COMMIT) == 0 && BSATerminate(lHandle) == 0);
    if (!sWorld.bDeaf) fuzz_CheckHeard();
    if (sWorld.strReplies.find(szSecret) == std::string::npos)
        CHECK(sWorld.strTrace.find(szSecret) == std::string::npos);
}
