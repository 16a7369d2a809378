// A whole session with random descriptors, and a server, a utility and an INI file that may contain
// anything: no field is read past its end, and a transfer is correct or fails.
#include "fuzz.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstddef>
#include <sstream>

static const char szPolite[] =
    "220 a\r\n331 b\r\n230 c\r\n200 d\r\n250 e\r\n200 f\r\n150 g\r\n226 h\r\n221\r\n";

// Splits a command line into words as a shell does, and checks that a shell would do nothing else.
static std::vector<std::string> ShellWords(const std::string &I_strCommand)
{
    const size_t uEnd = I_strCommand.rfind(" 2>/dev/null");
    CHECK(I_strCommand.size() < XBSA_COM_CMD_SIZE && uEnd + 12 == I_strCommand.size());
    std::vector<std::string> vecWords(1);
    bool bQuoted = false;
    for (size_t uPlace = 0; uPlace < uEnd; uPlace++)
    {
        const char cByte = I_strCommand[uPlace];
        if (cByte == '\'') bQuoted = !bQuoted;
        else if (bQuoted) vecWords.back() += cByte;
        else if (cByte == ' ') vecWords.emplace_back();
        else if (cByte == '\\') vecWords.back() += I_strCommand[++uPlace];
        else
        {
            CHECK(isalnum(static_cast<unsigned char>(cByte)) || strchr("_@%+=:,./-", cByte));
            vecWords.back() += cByte;
        }
    }
    CHECK(!bQuoted);
    return vecWords;
}

// Each line that the server received is a complete command of a session.
static void CheckHeard()
{
    CHECK(sWorld.strHeard.empty() || sWorld.strHeard.back() == '\n');
    std::istringstream sHeard(sWorld.strHeard);
    for (std::string strLine; std::getline(sHeard, strLine);)
    {
        CHECK(strLine.find('\r') == strLine.size() - 1 && strLine.find('\0') == std::string::npos);
        const std::string strVerb = strLine.substr(0, strLine.find_first_of(" \r"));
        CHECK(std::string(" USER PASS TYPE CWD PORT STOR RETR QUIT ").find(" " + strVerb + " ") !=
              std::string::npos);
    }
}

// Fills the fields at these offsets with the texts, which may run over all following fields.
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

// The utility is in the INI file's directory and receives the name of the object as one word.
static void CheckCommands(const BSA_ObjectName &I_sName)
{
    const auto fpText = [](const auto &caField) {
        return std::string(caField, strnlen(caField, sizeof caField));
    };
    const std::string strName = fpText(I_sName.objectSpaceName) + "@" + fpText(I_sName.pathName);
    for (const std::string &strCommand : sWorld.vecCommands)
    {
        const std::vector<std::string> vecWords = ShellWords(strCommand);
        const size_t uFolder = vecWords[0].rfind("/olm_com_interface");
        CHECK(uFolder != std::string::npos);
        CHECK(sWorld.mapFiles["/etc/korva2000.ini"].find(vecWords[0].substr(0, uFolder)) !=
              std::string::npos);
        if (std::find(vecWords.begin(), vecWords.end(), "--") != vecWords.end())
            CHECK(vecWords.back() == strName);
    }
}

static void Transfer(long lHandle, BSA_ObjectDescriptor *spObject, bool bRestore)
{
    const size_t uPlace = sWorld.strReplies.find("150");
    std::string strBlock = bRestore ? std::string(10000, '-') : sWorld.strData;
    BSA_DataBlock sBlock = {static_cast<BSA_UInt16>(strBlock.size()), 0, strBlock.data()};
    const BSA_ObjectDescriptor sBefore = *spObject;
    const int iRet = (bRestore ? BSAGetObject : BSACreateObject)(lHandle, spObject, nullptr);
    CHECK(iRet == 0 || iRet == 3 || iRet == 22);
    if (bRestore || iRet != 0) CHECK(memcmp(&sBefore, spObject, sizeof sBefore) == 0);
    else CHECK(spObject->objectStatus == BSA_ObjectStatus_ANY && spObject->objectInfo[0] == 'S');
    CheckCommands(sBefore.objectName);
    if (iRet == 0)
    {
        CHECK(bRestore || uPlace != std::string::npos);
        CHECK((bRestore ? BSAGetData : BSASendData)(lHandle, &sBlock) == 0);
        CHECK(!bRestore || strBlock.substr(0, sBlock.numBytes) == sWorld.strData);
    }
    const int iEnd = BSAEndData(lHandle);
    fuzz_Listen();
    CHECK(iEnd == 0 || iEnd == 3);
    CHECK(sPrivate.sControl.hOwn == -1 && sPrivate.sData.hOwn == -1);
    if (iEnd != 0 || bRestore || sGlobal.iQAB != 0) return;
    CHECK(iRet == 0 &&
          sWorld.strStored == sWorld.strData); // only after the server has confirmed it
    CHECK(sWorld.strReplies.find("226", uPlace) != std::string::npos);
}

static void Query(long lHandle, const BSA_QueryDescriptor &I_sQuery)
{
    BSA_QueryDescriptor sQuery = I_sQuery;
    BSA_ObjectDescriptor sObject = {};
    const int iRet = BSAQueryObject(lHandle, &sQuery, &sObject);
    CHECK(iRet == 0 || iRet == 3 || iRet == 17);
    CHECK(memcmp(&I_sQuery, &sQuery, sizeof sQuery) == 0);
    CheckCommands(sQuery.objectName);
    if (iRet == 0 && sGlobal.iQAB != 0) CHECK(sObject.copyType == sQuery.copyType);
    const std::string &strAnswer = sWorld.vecAnswers[0];
    const size_t uName = strAnswer.rfind("savesetname");
    if (iRet == 0 && sGlobal.iQAB != 0 && uName == strAnswer.find("\nsavesetname = 77@Rb5\n") + 1)
        CHECK(uName == 0 || sObject.copyId.right == 77);
    CHECK(BSAGetNextQueryObject(lHandle, &sObject) == BSA_RC_NO_MORE_DATA);
}

// At most one line, which is valid JSON whatever caller and server sent.
static void CheckJournal(bool I_bOn)
{
    const std::string &strLine = sWorld.strWritten;
    CHECK(I_bOn || strLine.empty());
    if (strLine.empty()) return;
    CHECK(strLine.find('\n') == strLine.size() - 1 && nlohmann::json::accept(strLine));
}

void fuzz_One(std::string &X_strBytes)
{
    using OBJECT = BSA_ObjectDescriptor;
    using QUERY = BSA_QueryDescriptor;
    const unsigned uMode = fuzz_Byte(X_strBytes);
    const unsigned uWorld = fuzz_Byte(X_strBytes);
    sWorld.bNoData = (uWorld & 1) != 0;
    sWorld.bStranger = (uWorld & 2) != 0;
    sWorld.bDeaf = (uWorld & 4) != 0;
    sWorld.bNoHost = (uWorld & 8) != 0;
    if ((uWorld & 16) != 0) sWorld.mapEnvironment["KORVA_JOURNAL"] = "journal";
    sWorld.strData.assign(fuzz_Byte(X_strBytes) * size_t{37}, 'd');
    sWorld.vecAnswers.assign(4, "reply = OK\nsessionID = 5\nsavesetname = 77@Rb5\n"
                                "tape_server = h:21:u:p\ndrive = SMS\ntape = T:9\n");
    const bool bOnce = X_strBytes.find("S3CRET") == X_strBytes.rfind("S3CRET");
    if ((uMode & 64) != 0)
    {
        sWorld.mapFiles["/etc/korva2000.ini"] = fuzz_Text(X_strBytes, '|');
        for (const char *cpName : {"KORVA_SERVER", "KORVA_JOB", "KORVA_TAPE_SERVER", "KORVA_DRIVE",
                                   "KORVA_POOL", "KORVA_COM_TIMEOUT"})
            sWorld.mapEnvironment[cpName] = fuzz_Text(X_strBytes, '|').c_str();
    }
    if ((uMode & 128) != 0)
        for (std::string &strAnswer : sWorld.vecAnswers) strAnswer = fuzz_Text(X_strBytes, '|');
    const long lHandle = fuzz_Init(uMode & 3, (uMode & 4) != 0, (uMode & 8) != 0);
    CHECK(BSABeginTxn(lHandle) == 0);
    if ((uMode & 16) != 0)
        Query(lHandle, Fill<QUERY>(X_strBytes, {0, offsetof(QUERY, objectName),
                                                offsetof(QUERY, objectName.pathName)}));
    else
    {
        auto sObject = Fill<OBJECT>(
            X_strBytes, {offsetof(OBJECT, objectOwner), offsetof(OBJECT, objectName),
                         offsetof(OBJECT, objectName.pathName), offsetof(OBJECT, createTime)});
        sWorld.strReplies = X_strBytes.empty() ? szPolite : X_strBytes;
        Transfer(lHandle, &sObject, (uMode & 32) != 0);
        qab_dumpobject(&sObject);
        const bool bSecret =
            bOnce && sGlobal.sObject.sSMS.szPass == std::string("S3CRET-pw") &&
            sGlobal.sObject.sSMS.szUser != std::string("sms"); // its password is shown
        journal_Release();
        CheckJournal((uWorld & 16) != 0);
        CHECK(!bSecret ||
              (sWorld.strTrace + sWorld.strWritten).find("S3CRET") == std::string::npos);
    }
    CHECK(BSAEndTxn(lHandle, BSA_Vote_COMMIT) == 0 && BSATerminate(lHandle) == 0);
    fuzz_Listen();
    if (!sWorld.bDeaf) CheckHeard();
}
