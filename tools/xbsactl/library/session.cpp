#include <fcntl.h>
#include <netinet/in.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "library/library.h"
#include "xbsa_session.h"

namespace library
{
namespace
{
constexpr size_t MESSAGE_ROOM = XBSA_TRACE_SIZE; // bytes: the longest last error
constexpr const char *INFORMIX_OWNER = "INFORMIX";
constexpr const char *UTILITY = "COM utility"; // in each error text of the library about it

// CheckObject and CheckPlain made sure that the text fits.
template <size_t SIZE> void Copy(char (&I_szTarget)[SIZE], const std::string &I_strText)
{
    I_szTarget[I_strText.copy(I_szTarget, SIZE - 1)] = '\0';
}

// In plain mode the name is a file in a directory. In Informix mode the utility gets
// objectSpaceName@pathName, and the name is the part after the space.
BSA_ObjectName ObjectName(const base::CONNECTION &I_sConnection, const OBJECT &I_sObject)
{
    BSA_ObjectName sName{};
    Copy(sName.objectSpaceName, I_sConnection.bInformix ? I_sObject.strSpace : I_sObject.strName);
    Copy(sName.pathName, I_sConnection.bInformix ? I_sObject.strName : I_sConnection.strPath);
    return sName;
}

// On one control connection.
struct DIALOGUE
{
    std::string strGreeting{};
    std::string strCommand{}; // sent last
    std::string strReply{};   // to it
    std::string strRefusal{}; // "COMMAND: REPLY", the first that the server refused
};

// Where the library's trace goes. Its sink is a plain function.
struct
{
    LISTENER fpListener;
    int iShown = 0;      // level of the lines that are written
    bool bBoth = false;  // to standard error as well as to the file
    std::string strFile; // empty: standard error
    int iFile = STDERR_FILENO;
    bool bWarned = false;
    std::string strUtility; // the COM utility's last error text
    DIALOGUE sDialogue;
} sTrace;

// A line as the library writes it itself. It may contain text from the server, so terminal controls
// are masked on a terminal.
void WriteTrace(const std::string &I_strMessage)
{
    const time_t lNow = time(nullptr);
    struct tm sNow = {};
    localtime_r(&lNow, &sNow);
    const auto sStamp = std::put_time(&sNow, " %Y-%m-%d %H:%M:%S: Trace: (QAB library) ");
    const std::string strText = base::Text(sStamp, I_strMessage);
    const std::string strVisible = base::Visible(strText) + "\n";
    const std::string strLine = sTrace.strFile.empty() ? strVisible : strText + "\n";
    if (sTrace.bBoth) fputs(strVisible.c_str(), stderr);
    const ssize_t iWritten = write(sTrace.iFile, strLine.data(), strLine.size());
    if (iWritten != -1 && iWritten < static_cast<ssize_t>(strLine.size())) errno = ENOSPC;
    if (iWritten == static_cast<ssize_t>(strLine.size()) || sTrace.strFile.empty()) return;
    // Warn once: the reader must know that lines are missing.
    const base::FAILURE sFailure = base::SystemFailure("trace file ", base::Quoted(sTrace.strFile));
    if (!sTrace.bWarned)
        fprintf(stderr, "xbsactl: warning: %s: lines are missing\n", sFailure.what());
    sTrace.bWarned = true;
}

// The library continues after a refused login, so the first refusal is the cause of later ones.
void NoteDialogue(const std::string &I_strLine)
{
    DIALOGUE &sDialogue = sTrace.sDialogue;
    if (I_strLine == "xbsa_connect: Start") sDialogue = {};
    if (const auto strCommand = CommandIn(I_strLine))
        sDialogue = {sDialogue.strGreeting, *strCommand, "", sDialogue.strRefusal};
    const auto strReply = ReplyIn(I_strLine);
    if (!strReply) return;
    sDialogue.strReply = *strReply;
    if (sDialogue.strCommand.empty()) sDialogue.strGreeting = *strReply;
    else if (sDialogue.strRefusal.empty() && strReply->find_first_of("45") == 0)
        sDialogue.strRefusal = sDialogue.strCommand + ": " + *strReply;
}

// The library's error texts contain neither the refused command nor the utility's own text.
void TakeLine(char *cpMessage)
{
    std::string strLine = cpMessage;
    strLine.resize(strLine.find_last_not_of("\r\n") + 1);
    if (sTrace.fpListener) sTrace.fpListener(strLine);
    const int iLevel = ReplyIn(strLine) ? 1 : 2; // all that level 1 has
    if (sTrace.iShown >= iLevel) WriteTrace(strLine);
    NoteDialogue(strLine);
    std::string &strText = sTrace.strUtility;
    for (const char *cpStart : {"parse_com_answer: ERROR MESSAGE: ", "find_com_intf: "})
        if (strLine.find(" INI ") == std::string::npos)
            strText = base::After(strLine, cpStart).value_or(strText);
    if (strText.size() > 1 && strText.front() == '[' && strText.back() == ']')
        strText = strText.substr(1, strText.size() - 2);
}

// The library silently ignores a trace file that it cannot write; here its lines come to the tool.
//   I_bNeeded  asked for by --trace: a failure. A variable must not stop a backup.
void OpenTrace(const std::string &I_strFile, bool I_bNeeded)
{
    sTrace.strFile = I_strFile;
    if (I_strFile.empty()) return;
    const int iFlags = O_WRONLY | O_APPEND | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    sTrace.iFile = open(I_strFile.c_str(), iFlags);
    if (sTrace.iFile == -1 && errno == ENOENT)
        sTrace.iFile = open(I_strFile.c_str(), iFlags | O_CREAT, 0600);
    if (sTrace.iFile != -1) return;
    const std::string strWhat = "trace file " + base::Quoted(I_strFile);
    if (I_bNeeded) throw base::SystemFailure(strWhat);
    fprintf(stderr, "xbsactl: warning: %s: no trace is written (XBSA_LOGFILE)\n",
            base::SystemFailure(strWhat).what());
    sTrace.iShown = 0;
}

// What the server did, where the library's text only reports a bad reply; else the library's text.
//   I_sRecord  the library's, with the address
std::string ServersPart(const std::string &I_strReason, const _sGlobal &I_sRecord)
{
    const auto &[strGreeting, strCommand, strReply, strRefusal] = sTrace.sDialogue;
    const std::string strVerb = strCommand.substr(0, strCommand.find(' '));
    const size_t uReply = strRefusal.find(": ");
    const size_t uCode = strGreeting.find_first_not_of("0123456789");
    const size_t uLookUp = I_strReason.find("gethostbyname() call");
    if (base::CTimeLimit::IsOver())
        return base::Text(!strReply.empty() ? "no data connection from the server"
                          : strVerb.empty() ? "the server sent no greeting"
                                            : "no reply to " + strVerb,
                          " within ", I_sRecord.ulTimeOut, " s (--timeout)");
    if (uLookUp != std::string::npos)
        return I_strReason.substr(uLookUp); // errno is not this call's
    if (I_strReason.find("connect() failed.") != std::string::npos)
        return base::Text(I_strReason, " (", I_sRecord.sObject.sSMS.szHostName, ", port ",
                          I_sRecord.sObject.sSMS.iPort, ")");
    if (uCode != 3 && uCode != std::string::npos && strRefusal.empty())
        return "the server does not speak FTP: " + strGreeting;
    if (uCode == 3 && strGreeting[3] == '-')
        return "the server sends a greeting of several lines, so its replies are out of step: " +
               strGreeting;
    if (strGreeting.find_first_of("45") == 0)
        return "the server rejected the session: " + strGreeting;
    if (I_strReason.ends_with("reply:"))
        return "the server closed the control connection before its reply to " + strVerb;
    const bool bRefused = uReply != std::string::npos &&
                          I_strReason.find(strRefusal.substr(uReply + 2)) != std::string::npos;
    return bRefused ? strRefusal : I_strReason;
}

const _sGlobal *spRecord; // of the library that has the session

// The control connection. The record keeps the number of one that is closed.
int Connection()
{
    sockaddr_in sPeer{};
    socklen_t uSize = sizeof sPeer;
    const int hControl = spRecord->sSession.SControl;
    const int iRet = getpeername(hControl, reinterpret_cast<sockaddr *>(&sPeer), &uSize);
    return iRet == 0 ? hControl : -1;
}

// The library waits without limit for the reply before its data connection. The library's own limit
// comes first. In Informix mode the limit does not include the utility, which may wait for a tape.
base::CTimeLimit Limit(const base::CONNECTION &I_sConnection)
{
    const unsigned uSeconds = I_sConnection.uTimeout;
    const std::string strMessage =
        base::Text("no connection to ", I_sConnection.strHost, " within ", uSeconds,
                   " s (--timeout): correct host and port, or "
                   "let this host through the firewall");
    return {uSeconds == 0 ? 0 : uSeconds + 1, Connection,
            I_sConnection.bInformix ? "" : strMessage};
}
} // namespace

std::optional<std::string> CommandIn(const std::string &I_strLine)
{
    const std::string strStep = I_strLine.substr(I_strLine.find(' ') + 1);
    const auto strCommand = base::After(strStep, "Send command: ");
    return strCommand ? strCommand : base::After(strStep, "Send message: ");
}

std::optional<std::string> ReplyIn(const std::string &I_strLine)
{
    return base::After(I_strLine, "LOGIN REPLY: ");
}

#define CALL(name) LIBRARY_SYMBOL(vpLibrary, name)

CSession::CSession(const base::CONNECTION &I_sConnection, const LISTENER &I_fpListener)
    : CSession(I_sConnection, Load(I_sConnection.strLibrary)) // the destructor runs from here on
{
    spRecord = LIBRARY_SYMBOL(vpLibrary, sGlobal);
    setenv("KORVA_STRICT", "1", 1);
    SetTrace(I_fpListener);
    BSA_ObjectOwner sOwner{};
    BSA_SecurityToken szToken{};
    Copy(sOwner.bsa_ObjectOwner, sConnection.bInformix ? INFORMIX_OWNER : "XBSACTL");
    std::string strVersion = "BSA_API_VERSION=1.0.1";
    std::string strTimeout = "BSA_TIMEOUT=" + std::to_string(sConnection.uTimeout);
    std::string strHost = "BSA_SERVICE_HOST=" + sConnection.strHost;
    char *const cpHost = sConnection.bInformix ? nullptr : strHost.data();
    char *cppEnvironment[] = {strVersion.data(), strTimeout.data(), cpHost, nullptr};
    Check("BSAInit", CALL(BSAInit)(&lHandle, &szToken, &sOwner, cppEnvironment));
    bOpen = true;
    Check("BSABeginTxn", CALL(BSABeginTxn)(lHandle));
}

CSession::CSession(const base::CONNECTION &I_sConnection, void *vpLoaded)
    : sConnection(I_sConnection), vpLibrary(vpLoaded)
{
}

CSession::~CSession()
{
    if (bOpen) CALL(BSATerminate)(lHandle);
}

// The tool reads the trace for replies, but not during a transfer: each block would be a line.
void CSession::Listen(bool I_bListen) const
{
    const bool bListen = I_bListen || sTrace.fpListener;
    const int iLevel = std::max(sTrace.iShown, bListen ? int{TRACE_STEPS} : 0);
    CALL(BSASetTrace)(TakeLine, nullptr, static_cast<unsigned char>(iLevel));
}

// The option overrides the environment. The library's own log would not report its failure.
void CSession::SetTrace(const LISTENER &I_fpListener)
{
    const bool bAsked = sConnection.iTraceLevel != -1;
    if (!bAsked) base::TakeTraceVariables(sConnection);
    unsetenv("XBSA_TRACE");
    sTrace.fpListener = I_fpListener;
    sTrace.iShown = sConnection.iTraceLevel & TRACE_VERBOSITY;
    sTrace.bBoth = (sConnection.iTraceLevel & TRACE_TO_STDERR) != 0;
    OpenTrace(sTrace.iShown > 0 ? sConnection.strTraceFile : "", bAsked);
    Listen(true);
}

std::string CSession::LastError() const
{
    std::string strText(MESSAGE_ROOM, '\0');
    BSA_UInt32 uiSize = static_cast<BSA_UInt32>(strText.size());
    if (CALL(BSAGetLastError)(&uiSize, strText.data()) != BSA_RC_SUCCESS) return "";
    strText.resize(strnlen(strText.data(), strText.size()));
    return base::Printable(base::Masked(strText, sConnection.strPassword));
}

// Why the utility cannot be run, or else the library's text. The search must not appear in the
// trace, where it would look like another process's.
std::string CSession::UtilityFault(const std::string &I_strReason) const
{
    CALL(BSASetTrace)(nullptr, nullptr, 0);
    const std::string strPath = UtilityPath(vpLibrary);
    Listen(true);
    const std::string strFault = UTILITY + std::string(" cannot be run: ");
    if (strPath.empty()) return strFault + "no line SM_BIN_KORVA=DIR in /etc/korva2000.ini";
    if (access(strPath.c_str(), X_OK) == 0) return I_strReason;
    return base::SystemFailure(strFault, strPath).what();
}

base::FAILURE CSession::Failure(const char *cpStep, int I_iCode) const
{
    std::string strReason = LastError();
    // The utility would have named it.
    const bool bNoHost = strReason.ends_with("invalid IP for host:");
    const bool bUtility = sConnection.bInformix && (bNoHost || strReason.empty() ||
                                                    strReason.find(UTILITY) != std::string::npos);
    if (bUtility && !sTrace.strUtility.empty())
        strReason = UTILITY + (": " + base::Printable(sTrace.strUtility));
    else if (bUtility) strReason = UtilityFault(strReason);
    else
        strReason = base::Printable(
            base::Masked(ServersPart(strReason, *spRecord), sConnection.strPassword));
    if (strReason.empty()) strReason = "no reason given; --trace 2 shows the steps";
    return base::FAILURE(base::Text(cpStep, " failed with code ", I_iCode, " (",
                                    CALL(xbsa_typeerr)(I_iCode), "): ", strReason),
                         bUtility ? base::EXIT_UTILITY : base::EXIT_SERVER);
}

void CSession::Check(const char *cpStep, int I_iCode) const
{
    if (I_iCode != BSA_RC_SUCCESS) throw Failure(cpStep, I_iCode);
}

// The reason for a broken data connection (a full disk, say) waits on the control connection.
void CSession::FailData(const char *cpStep, int I_iCode)
{
    const base::FAILURE sFailure = Failure(cpStep, I_iCode);
    Abandon();
    std::string strReason = LastError();
    if (!strReason.empty()) strReason = "; then: " + ServersPart(strReason, *spRecord);
    throw base::FAILURE(sFailure.what() + base::Masked(strReason, sConnection.strPassword),
                        sFailure.iExit);
}

void CSession::Create(BSA_ObjectDescriptor &X_sObject)
{
    const base::CTimeLimit sLimit = Limit(sConnection);
    Check("BSACreateObject", CALL(BSACreateObject)(lHandle, &X_sObject, nullptr));
    Listen(false);
}

void CSession::Get(BSA_ObjectDescriptor &X_sObject)
{
    const base::CTimeLimit sLimit = Limit(sConnection);
    Check("BSAGetObject", CALL(BSAGetObject)(lHandle, &X_sObject, nullptr));
    Listen(false);
}

void CSession::Send(char *cpData, size_t I_uLength)
{
    BSA_DataBlock sBlock{};
    sBlock.bufferLen = static_cast<BSA_UInt16>(I_uLength);
    sBlock.numBytes = sBlock.bufferLen;
    sBlock.bufferPtr = cpData;
    const int iCode = CALL(BSASendData)(lHandle, &sBlock);
    if (iCode != BSA_RC_SUCCESS) FailData("BSASendData", iCode);
}

size_t CSession::Receive(char *cpData)
{
    BSA_DataBlock sBlock{};
    sBlock.bufferLen = static_cast<BSA_UInt16>(BLOCK_SIZE);
    sBlock.bufferPtr = cpData;
    const int iCode = CALL(BSAGetData)(lHandle, &sBlock);
    if (iCode != BSA_RC_SUCCESS) FailData("BSAGetData", iCode);
    return sBlock.numBytes;
}

void CSession::EndData()
{
    Listen(true);
    Check("BSAEndData", CALL(BSAEndData)(lHandle));
}

void CSession::Abandon()
{
    Listen(true);
    CALL(BSAEndData)(lHandle);
}

void CSession::Next()
{
    LastError(); // an earlier object's message must not explain the next failure
    sTrace.strUtility.clear();
    Check("BSAEndTxn", CALL(BSAEndTxn)(lHandle, BSA_Vote_COMMIT));
    Check("BSABeginTxn", CALL(BSABeginTxn)(lHandle));
}

void CSession::Close()
{
    Check("BSAEndTxn", CALL(BSAEndTxn)(lHandle, BSA_Vote_COMMIT));
    bOpen = false;
    Check("BSATerminate", CALL(BSATerminate)(lHandle));
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
    int iCode = CALL(BSAQueryObject)(lHandle, &sQuery, &sCopy);
    if (iCode == BSA_RC_NO_MATCH) return vecCopies;
    Check("BSAQueryObject", iCode);
    while (iCode == BSA_RC_SUCCESS)
    {
        vecCopies.push_back(sCopy);
        iCode = CALL(BSAGetNextQueryObject)(lHandle, &sCopy);
    }
    if (iCode != BSA_RC_NO_MORE_DATA) Check("BSAGetNextQueryObject", iCode);
    return vecCopies;
}

BSA_ObjectDescriptor CSession::Find(const OBJECT &I_sWanted)
{
    BSA_ObjectDescriptor sObject = Descriptor(sConnection, I_sWanted);
    if (!sConnection.bInformix || I_sWanted.uCopyId != 0) return sObject;
    const std::vector<BSA_ObjectDescriptor> vecCopies = Copies(I_sWanted);
    if (vecCopies.empty()) throw base::FAILURE("no match", base::EXIT_NO_MATCH);
    sObject.copyId = vecCopies.front().copyId;
    return sObject;
}

BSA_ObjectDescriptor Descriptor(const base::CONNECTION &I_sConnection, const OBJECT &I_sObject)
{
    BSA_ObjectDescriptor sObject{};
    Copy(sObject.objectOwner.bsa_ObjectOwner,
         I_sConnection.bInformix ? INFORMIX_OWNER : base::Owner(I_sConnection));
    sObject.objectName = ObjectName(I_sConnection, I_sObject);
    sObject.copyId.right = I_sObject.uCopyId;
    sObject.copyType = BSA_CopyType_BACKUP;
    sObject.objectType = BSA_ObjectType_FILE;
    sObject.objectStatus = BSA_ObjectStatus_ANY;
    return sObject;
}

void CheckObject(const base::CONNECTION &I_sConnection, const OBJECT &I_sObject)
{
    if (I_sConnection.bInformix)
    {
        base::CheckText("NAME", I_sObject.strName, base::NAME_ROOM);
        base::CheckText("--space", I_sObject.strSpace, base::NAME_ROOM);
        if (I_sObject.strSpace.find('@') != std::string::npos)
            throw base::USAGE_ERROR("--space contains an \"@\", which separates SPACE and NAME");
        return;
    }
    base::CheckName("NAME", I_sObject.strName);
    if (I_sObject.strName.find('/') != std::string::npos)
        throw base::USAGE_ERROR("NAME contains a \"/\": give the directory with --path");
    if (I_sObject.strName == "." || I_sObject.strName == "..")
        throw base::USAGE_ERROR("NAME is a directory");
}
} // namespace library
