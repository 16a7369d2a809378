// Descriptors of random bytes, against a server and a utility that say yes to everything: no field
// is read past its end, and what goes out is one command and one word each.
#include "fuzz.h"

#include <algorithm>
#include <cstddef>

// The fields that begin at the places get the texts, which may run over all fields behind them.
template <typename T> T Fill(std::string &X_strBytes, std::initializer_list<size_t> I_lstPlaces)
{
    T sDescriptor;
    memset(&sDescriptor, static_cast<int>(fuzz_Byte(X_strBytes)), sizeof sDescriptor);
    for (const size_t uPlace : I_lstPlaces)
    {
        const std::string strText = fuzz_Text(X_strBytes, '|');
        memcpy(reinterpret_cast<char *>(&sDescriptor) + uPlace, strText.c_str(),
               std::min(strText.size() + 1, sizeof sDescriptor - uPlace));
    }
    return sDescriptor;
}

static void CheckCommands(const BSA_ObjectName &I_sName)
{
    const auto fpText = [](const auto &caField) {
        return std::string(caField, strnlen(caField, sizeof caField));
    };
    const std::string strName = fpText(I_sName.objectSpaceName) + "@" + fpText(I_sName.pathName);
    for (const std::string &strCommand : sWorld.vecCommands)
    {
        const std::vector<std::string> vecWords = fuzz_ShellWords(strCommand);
        if (std::find(vecWords.begin(), vecWords.end(), "--") != vecWords.end())
            CHECK(vecWords.back() == strName);
    }
}

static void RunObject(std::string &X_strBytes, long lHandle, bool bStore)
{
    using OBJECT = BSA_ObjectDescriptor;
    auto sObject = Fill<OBJECT>(
        X_strBytes, {offsetof(OBJECT, objectOwner), offsetof(OBJECT, objectName),
                     offsetof(OBJECT, objectName.pathName), offsetof(OBJECT, createTime)});
    const OBJECT sBefore = sObject;
    const int iRet = (bStore ? BSACreateObject : BSAGetObject)(lHandle, &sObject, nullptr);
    CHECK(iRet == 0 || iRet == 3 || iRet == 22);
    if (iRet != 0 || !bStore) CHECK(memcmp(&sBefore, &sObject, sizeof sObject) == 0);
    else CHECK(sObject.objectStatus == BSA_ObjectStatus_ANY && sObject.objectInfo[0] == 'S');
    CheckCommands(sBefore.objectName);
    qab_dumpobject(&sObject);
    CHECK(BSAEndData(lHandle) % 3 == 0);
    CHECK(sPrivate.hOwnControl == -1 && sPrivate.hOwnData == -1);
}

static void RunQuery(std::string &X_strBytes, long lHandle)
{
    using QUERY = BSA_QueryDescriptor;
    auto sQuery = Fill<QUERY>(
        X_strBytes, {0, offsetof(QUERY, objectName), offsetof(QUERY, objectName.pathName)});
    const QUERY sBefore = sQuery;
    BSA_ObjectDescriptor sObject = {};
    const int iRet = BSAQueryObject(lHandle, &sQuery, &sObject);
    CHECK(iRet == 0 || iRet == 3 || iRet == 17);
    CHECK(memcmp(&sBefore, &sQuery, sizeof sQuery) == 0);
    CheckCommands(sQuery.objectName);
    if (iRet == 0 && sGlobal.iQAB != 0)
        CHECK(sObject.copyId.right == 77 && sObject.copyType == sQuery.copyType);
    CHECK(BSAGetNextQueryObject(lHandle, &sObject) == BSA_RC_NO_MORE_DATA);
}

void fuzz_One(std::string &X_strBytes)
{
    const unsigned uMode = fuzz_Byte(X_strBytes);
    sWorld.strReplies =
        "220 a\r\n331 b\r\n230 c\r\n200 d\r\n250 e\r\n200 f\r\n150 g\r\n226 h\r\n221\r\n";
    sWorld.vecAnswers.assign(4, "reply = OK\nsessionID = 5\nsavesetname = 77@Rb5\n"
                                "tape_server = h:21:u:p\ndrive = SMS\ntape = T:9\n");
    const long lHandle = fuzz_Init(uMode & 3, (uMode & 4) != 0, (uMode & 8) != 0);
    CHECK(BSABeginTxn(lHandle) == 0);
    if ((uMode & 16) != 0) RunQuery(X_strBytes, lHandle);
    else RunObject(X_strBytes, lHandle, (uMode & 32) != 0);
    fuzz_Listen();
    fuzz_CheckHeard();
}
