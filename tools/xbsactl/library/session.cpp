#include "library/library.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <vector>

#include "xbsa_session.h"

namespace library
{
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
BSA_ObjectName ObjectName(const base::CONNECTION &I_sConnection, const OBJECT &I_sObject)
{
    BSA_ObjectName sName{};
    Copy(sName.objectSpaceName, I_sConnection.bInformix ? I_sObject.strSpace : I_sObject.strName);
    Copy(sName.pathName, I_sConnection.bInformix ? I_sObject.strName : I_sConnection.strPath);
    return sName;
}

std::string strTraceFile; // empty: standard error
int iTraceFile = STDERR_FILENO;

// Once: what is missing from a trace must not be looked for in it.
void WarnOfTrace()
{
    static bool bWarned = false;
    const base::FAILURE sFailure = base::SystemFailure("trace file " + base::Quoted(strTraceFile));
    if (!bWarned && !strTraceFile.empty())
        fprintf(stderr, "xbsactl: warning: %s: lines are missing\n", sFailure.what());
    bWarned = true;
}

// A line of the library's trace, as it writes it itself. Its texts are the server's, and what
// commands a terminal is taken out there.
void WriteTrace(const std::string &I_strMessage)
{
    const time_t lNow = time(nullptr);
    struct tm sNow = {};
    std::array<char, 64> szStamp{};
    localtime_r(&lNow, &sNow);
    strftime(szStamp.data(), szStamp.size(), " %Y-%m-%d %H:%M:%S: Trace: (QAB library) ", &sNow);
    std::string strLine = szStamp.data() + I_strMessage;
    if (strTraceFile.empty()) strLine = base::Visible(strLine);
    strLine += '\n';
    const ssize_t iWritten = write(iTraceFile, strLine.data(), strLine.size());
    if (iWritten != -1 && iWritten < static_cast<ssize_t>(strLine.size())) errno = ENOSPC;
    if (iWritten != static_cast<ssize_t>(strLine.size())) WarnOfTrace();
}

LISTENER fpTraceListener;
int iTraceLevel = 0; // of the lines that are written

void TakeTrace(char *cpMessage)
{
    std::string strLine = cpMessage;
    strLine.resize(strLine.find_last_not_of("\r\n") + 1);
    if (fpTraceListener) fpTraceListener(strLine);
    const bool bReply = strLine.compare(0, 12, "LOGIN REPLY:") == 0; // all that level 1 has
    if (iTraceLevel > 1 || (iTraceLevel == 1 && bReply)) WriteTrace(strLine);
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
    if (iTraceFile == -1) throw base::SystemFailure("trace file " + base::Quoted(I_strFile));
}
} // namespace

CSession::CSession(const LIBRARY &I_sLibrary, const base::CONNECTION &I_sConnection)
    : sLibrary(I_sLibrary), sConnection(I_sConnection)
{
}

// The destructor runs for a failure in here, too.
CSession::CSession(const base::CONNECTION &I_sConnection, const LISTENER &I_fpListener)
    : CSession(Load(I_sConnection.strLibrary), I_sConnection)
{
    setenv("KORVA_STRICT", "1", 1);
    SetTrace(I_fpListener);

    BSA_ObjectOwner sOwner{};
    BSA_SecurityToken szToken{};
    Copy(sOwner.bsa_ObjectOwner, I_sConnection.bInformix ? INFORMIX_OWNER : "XBSACTL");
    std::vector<std::string> vecTexts = {"BSA_API_VERSION=1.0.1",
                                         "BSA_TIMEOUT=" + std::to_string(I_sConnection.uTimeout)};
    if (!I_sConnection.bInformix) vecTexts.push_back("BSA_SERVICE_HOST=" + I_sConnection.strHost);
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

void CSession::SetTrace(const LISTENER &I_fpListener) const
{
    if (sConnection.iTraceLevel == -1) return;
    constexpr int STEPS = 2; // the level that a listener needs
    fpTraceListener = I_fpListener;
    iTraceLevel = sConnection.iTraceLevel;
    unsetenv("XBSA_TRACE"); // the option wins
    OpenTrace(sConnection.strTraceFile);
    const int iLevel = I_fpListener ? std::max(STEPS, iTraceLevel) : iTraceLevel;
    sLibrary.fpSetTrace(TakeTrace, nullptr, static_cast<unsigned char>(iLevel));
}

std::string CSession::LastError() const
{
    std::array<char, MESSAGE_ROOM> szText{};
    BSA_UInt32 uiSize = szText.size();
    if (sLibrary.fpGetLastError(&uiSize, szText.data()) != BSA_RC_SUCCESS) return "";
    return base::Printable(base::Masked(szText.data(), sConnection.strPassword));
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
    if (I_iCode != BSA_RC_SUCCESS) throw base::FAILURE(Text(cpStep, I_iCode));
}

// The reason for a broken data connection (a full disk, say) waits on the control connection.
void CSession::FailData(const char *cpStep, int I_iCode) const
{
    std::string strText = Text(cpStep, I_iCode);
    sLibrary.fpEndData(lHandle);
    const std::string strReason = LastError();
    if (!strReason.empty()) strText += "; then: " + strReason;
    throw base::FAILURE(strText);
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

std::vector<BSA_ObjectDescriptor> CSession::Copies(const OBJECT &I_sObject)
{
    BSA_QueryDescriptor sQuery{};
    Copy(sQuery.objectOwner.bsa_ObjectOwner, INFORMIX_OWNER);
    sQuery.objectName = ObjectName(sConnection, I_sObject);
    sQuery.copyType = BSA_CopyType_BACKUP;
    sQuery.objectType = BSA_ObjectType_ANY;
    sQuery.objectStatus = BSA_ObjectStatus_MOST_RECENT;
    std::vector<BSA_ObjectDescriptor> vecCopies;
    BSA_ObjectDescriptor sCopy{};
    int iCode = sLibrary.fpQueryObject(lHandle, &sQuery, &sCopy);
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

void CSession::TakeNewest(const OBJECT &I_sWanted, BSA_ObjectDescriptor &X_sObject)
{
    const std::vector<BSA_ObjectDescriptor> vecCopies = Copies(I_sWanted);
    if (vecCopies.empty()) throw base::FAILURE("no match");
    X_sObject.copyId = vecCopies.front().copyId;
}

BSA_ObjectDescriptor Descriptor(const base::CONNECTION &I_sConnection, const OBJECT &I_sObject)
{
    BSA_ObjectDescriptor sObject{};
    Copy(sObject.objectOwner.bsa_ObjectOwner,
         I_sConnection.bInformix ? INFORMIX_OWNER : Owner(I_sConnection));
    sObject.objectName = ObjectName(I_sConnection, I_sObject);
    sObject.copyId.right = I_sObject.uCopyId;
    sObject.copyType = BSA_CopyType_BACKUP;
    sObject.objectType = BSA_ObjectType_FILE;
    sObject.objectStatus = BSA_ObjectStatus_ANY;
    return sObject;
}

void CheckObject(const base::CONNECTION &I_sConnection, const OBJECT &I_sObject)
{
    base::CheckText("NAME", I_sObject.strName, base::NAME_ROOM);
    if (!I_sConnection.bInformix)
    {
        base::CheckBlanks("NAME", I_sObject.strName);
        if (I_sObject.strName.find('/') != std::string::npos)
            throw base::USAGE_ERROR("NAME holds a \"/\": give the folder with --path");
        if (I_sObject.strName == "." || I_sObject.strName == "..")
            throw base::USAGE_ERROR("NAME is a folder");
        return;
    }
    base::CheckText("--space", I_sObject.strSpace, base::NAME_ROOM);
    if (I_sObject.strSpace.find('@') != std::string::npos)
        throw base::USAGE_ERROR("--space holds an \"@\", which ends the space in SPACE@NAME");
}
} // namespace library
