#include "library/session.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <vector>

#include "base/errors.h"
#include "base/files.h"
#include "xbsa_session.h"

namespace
{
constexpr size_t MESSAGE_ROOM = XBSA_TRACE_SIZE; // bytes: the longest last error
constexpr const char *INFORMIX_OWNER = "INFORMIX";

// settings_Check made sure that the text fits.
template <size_t SIZE> void Copy(char (&I_szTarget)[SIZE], const std::string &I_strText)
{
    I_szTarget[I_strText.copy(I_szTarget, SIZE - 1)] = '\0';
}

// On the plain road the name is a file in a folder. In an Informix session the utility is told
// objectSpaceName@pathName, and the name is what stands in the space.
BSA_ObjectName ObjectName(const SETTINGS &I_sSettings)
{
    BSA_ObjectName sName{};
    Copy(sName.objectSpaceName, I_sSettings.bInformix ? I_sSettings.strSpace : I_sSettings.strName);
    Copy(sName.pathName, I_sSettings.bInformix ? I_sSettings.strName : I_sSettings.strPath);
    return sName;
}

std::string strTraceFile; // empty: standard error
int iTraceFile = STDERR_FILENO;

// Once: what is missing from a trace must not be looked for in it.
void WarnOfTrace()
{
    static bool bWarned = false;
    const FAILURE sFailure = SystemFailure("trace file " + files_Quoted(strTraceFile));
    if (!bWarned && !strTraceFile.empty())
        fprintf(stderr, "xbsactl: warning: %s: lines are missing\n", sFailure.what());
    bWarned = true;
}

// A line of the library's trace, as it writes it itself. Its texts are the server's, and what
// commands a terminal is taken out there.
void WriteTrace(char *cpMessage)
{
    const time_t lNow = time(nullptr);
    struct tm sNow = {};
    std::array<char, 64> szStamp{};
    localtime_r(&lNow, &sNow);
    strftime(szStamp.data(), szStamp.size(), " %Y-%m-%d %H:%M:%S: Trace: (QAB library) ", &sNow);
    std::string strLine = std::string(szStamp.data()) + cpMessage;
    strLine.resize(strLine.find_last_not_of("\r\n") + 1);
    if (strTraceFile.empty()) strLine = Visible(strLine);
    strLine += '\n';
    const ssize_t iWritten = write(iTraceFile, strLine.data(), strLine.size());
    if (iWritten != -1 && iWritten < static_cast<ssize_t>(strLine.size())) errno = ENOSPC;
    if (iWritten != static_cast<ssize_t>(strLine.size())) WarnOfTrace();
}

// The library writes the file without a word when it cannot; here its lines come to the tool.
void OpenTrace(const std::string &I_strFile)
{
    strTraceFile = I_strFile;
    if (I_strFile.empty()) return;
    const int iFlags = O_WRONLY | O_APPEND | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    iTraceFile = open(I_strFile.c_str(), iFlags);
    if (iTraceFile == -1 && errno == ENOENT)
        iTraceFile = open(I_strFile.c_str(), iFlags | O_CREAT, 0600);
    if (iTraceFile == -1) throw SystemFailure("trace file " + files_Quoted(I_strFile));
}
} // namespace

CSession::CSession(const LIBRARY &I_sLibrary, const std::string &I_strPassword)
    : sLibrary(I_sLibrary), strPassword(I_strPassword)
{
}

// The destructor runs for a failure in here, too.
CSession::CSession(const SETTINGS &I_sSettings)
    : CSession(library_Load(I_sSettings.strLibrary), I_sSettings.strPassword)
{
    setenv("KORVA_STRICT", "1", 1);
    SetTrace(I_sSettings);

    BSA_ObjectOwner sOwner{};
    BSA_SecurityToken szToken{};
    Copy(sOwner.bsa_ObjectOwner, I_sSettings.bInformix ? INFORMIX_OWNER : "XBSACTL");
    std::vector<std::string> vecTexts = {"BSA_API_VERSION=1.0.1",
                                         "BSA_TIMEOUT=" + std::to_string(I_sSettings.uTimeout)};
    if (!I_sSettings.bInformix) vecTexts.push_back("BSA_SERVICE_HOST=" + I_sSettings.strHost);
    std::vector<char *> vecEnvironment;
    vecEnvironment.reserve(vecTexts.size() + 1);
    for (std::string &strText : vecTexts) vecEnvironment.push_back(strText.data());
    vecEnvironment.push_back(nullptr);

    Check("BSAInit", sLibrary.fpInit(&lHandle, &szToken, &sOwner, vecEnvironment.data()));
    bOpen = true;
    Check("BSABeginTxn", sLibrary.fpBeginTxn(lHandle));
}

CSession::~CSession()
{
    if (bOpen) sLibrary.fpTerminate(lHandle);
}

void CSession::SetTrace(const SETTINGS &I_sSettings) const
{
    if (I_sSettings.iTraceLevel == -1) return;
    const auto ucLevel = static_cast<unsigned char>(I_sSettings.iTraceLevel);
    unsetenv("XBSA_TRACE"); // the option wins
    OpenTrace(I_sSettings.strTraceFile);
    sLibrary.fpSetTrace(WriteTrace, nullptr, ucLevel);
}

std::string CSession::LastError() const
{
    std::array<char, MESSAGE_ROOM> szText{};
    BSA_UInt32 uiSize = szText.size();
    if (sLibrary.fpGetLastError(&uiSize, szText.data()) != BSA_RC_SUCCESS) return "";
    return Printable(Masked(szText.data(), strPassword));
}

std::string CSession::Text(const char *cpStep, int I_iCode) const
{
    std::string strText = std::string(cpStep) + " failed with code " + std::to_string(I_iCode);
    if (sLibrary.fpTypeErr != nullptr)
        strText += std::string(" (") + sLibrary.fpTypeErr(I_iCode) + ")";
    const std::string strError = LastError();
    return strText + ": " +
           (strError.empty() ? "no reason given, --trace 2 shows the steps" : strError);
}

void CSession::Check(const char *cpStep, int I_iCode) const
{
    if (I_iCode != BSA_RC_SUCCESS) throw FAILURE(Text(cpStep, I_iCode));
}

// The reason for a broken data connection (a full disk, say) waits on the control connection.
void CSession::FailData(const char *cpStep, int I_iCode) const
{
    std::string strText = Text(cpStep, I_iCode);
    sLibrary.fpEndData(lHandle);
    const std::string strReason = LastError();
    if (!strReason.empty()) strText += "; then: " + strReason;
    throw FAILURE(strText);
}

void CSession::Create(BSA_ObjectDescriptor &I_sObject)
{
    Check("BSACreateObject", sLibrary.fpCreateObject(lHandle, &I_sObject, nullptr));
}

void CSession::Get(BSA_ObjectDescriptor &I_sObject)
{
    Check("BSAGetObject", sLibrary.fpGetObject(lHandle, &I_sObject, nullptr));
}

void CSession::Send(char *cpData, size_t I_uLength)
{
    BSA_DataBlock sBlock{};
    sBlock.bufferLen = static_cast<BSA_UInt16>(I_uLength);
    sBlock.numBytes = sBlock.bufferLen;
    sBlock.bufferPtr = cpData;
    const int iCode = sLibrary.fpSendData(lHandle, &sBlock);
    if (iCode != BSA_RC_SUCCESS) FailData("BSASendData", iCode);
}

size_t CSession::Receive(char *cpData)
{
    BSA_DataBlock sBlock{};
    sBlock.bufferLen = static_cast<BSA_UInt16>(BLOCK_SIZE);
    sBlock.bufferPtr = cpData;
    const int iCode = sLibrary.fpGetData(lHandle, &sBlock);
    if (iCode != BSA_RC_SUCCESS) FailData("BSAGetData", iCode);
    return sBlock.numBytes;
}

void CSession::EndData()
{
    Check("BSAEndData", sLibrary.fpEndData(lHandle));
}

void CSession::Abandon()
{
    sLibrary.fpEndData(lHandle);
}

void CSession::Next()
{
    LastError(); // what an earlier object left is no reason for the next one's failure
    Check("BSAEndTxn", sLibrary.fpEndTxn(lHandle, BSA_Vote_COMMIT));
    Check("BSABeginTxn", sLibrary.fpBeginTxn(lHandle));
}

void CSession::Close()
{
    Check("BSAEndTxn", sLibrary.fpEndTxn(lHandle, BSA_Vote_COMMIT));
    bOpen = false;
    Check("BSATerminate", sLibrary.fpTerminate(lHandle));
}

std::vector<BSA_ObjectDescriptor> CSession::Query(BSA_QueryDescriptor &I_sQuery)
{
    std::vector<BSA_ObjectDescriptor> vecCopies;
    BSA_ObjectDescriptor sCopy{};
    int iCode = sLibrary.fpQueryObject(lHandle, &I_sQuery, &sCopy);
    if (iCode == BSA_RC_NO_MATCH) return vecCopies;
    Check("BSAQueryObject", iCode);
    while (iCode == BSA_RC_SUCCESS)
    {
        vecCopies.push_back(sCopy);
        iCode = sLibrary.fpGetNextQueryObject(lHandle, &sCopy);
    }
    if (iCode != BSA_RC_NO_MORE_DATA) Check("BSAGetNextQueryObject", iCode);
    return vecCopies;
}

void CSession::TakeNewest(const SETTINGS &I_sSettings, BSA_ObjectDescriptor &I_sObject)
{
    BSA_QueryDescriptor sQuery = session_Query(I_sSettings);
    const std::vector<BSA_ObjectDescriptor> vecCopies = Query(sQuery);
    if (vecCopies.empty()) throw FAILURE("no match");
    I_sObject.copyId = vecCopies.front().copyId;
}

BSA_ObjectDescriptor session_Object(const SETTINGS &I_sSettings)
{
    BSA_ObjectDescriptor sObject{};
    Copy(sObject.objectOwner.bsa_ObjectOwner,
         I_sSettings.bInformix ? INFORMIX_OWNER : settings_Owner(I_sSettings));
    sObject.objectName = ObjectName(I_sSettings);
    sObject.copyId.right = I_sSettings.uCopyId;
    sObject.copyType = BSA_CopyType_BACKUP;
    sObject.objectType = BSA_ObjectType_FILE;
    sObject.objectStatus = BSA_ObjectStatus_ANY;
    return sObject;
}

BSA_QueryDescriptor session_Query(const SETTINGS &I_sSettings)
{
    BSA_QueryDescriptor sQuery{};
    Copy(sQuery.objectOwner.bsa_ObjectOwner, INFORMIX_OWNER);
    sQuery.objectName = ObjectName(I_sSettings);
    sQuery.copyType = BSA_CopyType_BACKUP;
    sQuery.objectType = BSA_ObjectType_ANY;
    sQuery.objectStatus = BSA_ObjectStatus_MOST_RECENT;
    return sQuery;
}
