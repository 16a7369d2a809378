/*
 * Korva XBSA: the session record and the functions that implement the calls.
 *
 * This header is for the library, its tests and developers who debug a running
 * host. All functions are exported, so that each can be called alone. A backup
 * tool needs only xbsa.h.
 *
 * All state is in one record, sGlobal, for the life of the process. Programs that
 * link to the library and programs that load it with dlsym see the same record.
 * Between calls a caller may set fields, store its own sockets there or restore
 * an earlier copy. The library closes and frees only what it has made itself.
 *
 * Unless noted otherwise, texts are NUL-terminated, pointers must not be null,
 * and a failure is traced and becomes the session's last message if that is
 * empty.
 */
#ifndef XBSA_SESSION_H
#define XBSA_SESSION_H

#include "xbsa.h"

#ifdef __cplusplus
extern "C" {
#endif

/* --- Sizes and limits ---------------------------------------------------------------------- */

enum
{
    XBSA_TRACE_SIZE = 1536,   /* bytes of one trace line or message, terminator included */
    XBSA_REPLY_SIZE = 2048,   /* bytes of one command or reply line */
    XBSA_COMMAND_SLOTS = 16,  /* lines in a command list, six of them used */
    XBSA_QUERY_RESULTS = 128, /* entries of the result list */
    XBSA_COM_CMD_SIZE = 1024, /* bytes of a COM command line, terminator included */
    XBSA_COM_ANSWER = 32768,  /* bytes read of a COM answer */
    XBSA_COM_VALUE = 512      /* bytes of one value in a COM answer, terminator included */
};

/* The user name that requests a login identity of account and host. */
#define XBSA_SECURE_USER "KORVA_SECURE_AUTHENTICATION"

/* --- Enumerations -------------------------------------------------------------------------- */

/* What to run the COM utility for. */
typedef enum XBSA_INT
{
    COM_OPEN_WRITE = 1,  /* open a session, then a job, for a backup */
    COM_OPEN_READ = 2,   /* the same for a restore */
    COM_CLOSE_WRITE = 3, /* close the job, then the session, of a backup */
    COM_CLOSE_READ = 4,  /* the same for a restore */
    COM_INFO = 5,        /* look up the saveset of an object */
    COM_REMOVE = 6       /* runs the utility without arguments */
} ENUM_COM_TASK;

/* One run of the utility within a task. */
enum
{
    COM_STEP_INIT = 0,
    COM_STEP_OPEN_SESSION = 1,
    COM_STEP_OPEN_JOB = 2,
    COM_STEP_CLOSE_JOB = 3,
    COM_STEP_CLOSE_SESSION = 4
};

/* Direction of a transfer. */
typedef enum XBSA_INT
{
    STOR_MODE = 1, /* to the server */
    RETR_MODE = 2  /* from the server */
} ENUM_DIRECTION;

/* Outcome of a transfer, for the COM utility. */
enum
{
    OP_STATUS_GOOD = 0,
    OP_STATUS_PARTLY = 2,
    OP_STATUS_FAILED = 3
};

/* Bits of _sSession.iLastCall: the calls made in this transaction. */
enum
{
    CALL_BEGIN_TXN = 0x1,
    CALL_CREATE_OBJECT = 0x2,
    CALL_END_DATA = 0x8,
    CALL_GET_NEXT_QUERY = 0x100,
    CALL_GET_OBJECT = 0x200,
    CALL_INIT = 0x400,
    CALL_QUERY_VERSION = 0x800,
    CALL_QUERY_OBJECT = 0x1000,
    CALL_SERVICE_PROVIDER = 0x2000
};

/* Bits of _sGlobal.ucXBSATraceLevel. */
enum
{
    TRACE_VERBOSITY = 63,  /* 0 none, 1 replies only, 2 steps, 3 every system call */
    TRACE_TO_LOG = 64,     /* lines go to the log file */
    TRACE_TO_STDERR = 128, /* lines go to standard error */
    TRACE_STEPS = 2,
    TRACE_CALLS = 3
};

/* --- The record ---------------------------------------------------------------------------- */

/* A row of a table of numbers and texts. */
typedef struct
{
    int iFlag;
    const char *cpFlagName;
} MsgTbl;

/* Session state. */
typedef struct
{
    long lBSAHandle;                     /* process id, by BSAInit */
    int iLastCall;                       /* CALL_ bits; cleared by BSAEndTxn */
    char szLastMessage[XBSA_TRACE_SIZE]; /* first error since BSAGetLastError; by SysErrorTxt */
    int iOpStatus;                       /* data phase of the last backup: 0, 3, 5, 6 or -1 */
    double dBytes;                       /* bytes moved for this object; 0 after BSAEndData */
    int SControl;                        /* control connection; -1 none; by xbsa_open */
    int SData;                           /* data connection; -1 none; by xbsa_open */
} _sSession;

/* The server and the transfer. */
typedef struct
{
    char szHostName[4096];      /* by BSAInit or the COM answer */
    int iPort;                  /* by BSAInit or the COM answer; a connect needs 1 to 65535 */
    char szUser[4096];          /* login; by the object's owner or the COM answer */
    char szPass[4096];          /* login; traced for the user "sms" only */
    char szName[2048];          /* object or saveset name on the server */
    char szPath[4096];          /* directory on the server; "SMS..." makes long commands */
    char szTape[4096];          /* tape label; by the COM answer */
    char szMode[4096];          /* not used */
    char szTapeBlock[4096];     /* not used */
    char szInfo[4096];          /* not used */
    char szInter[4096];         /* format; by the COM answer */
    unsigned long ulTapeID;     /* by the COM answer and the reply to STOR */
    unsigned long ulSegmentNum; /* by the COM answer and the reply to STOR */
    char szTapeLabel[4096];     /* not used */
    int iTCPBufsiz;             /* tape block size in bytes; by the COM answer */
    double dSavesetOffset;      /* not used */
    double dLength;             /* not used */
    int iOpStatus;              /* OP_STATUS_ value for the COM utility */
} _sSMS;

/* The current object. */
typedef struct
{
    BSA_ObjectDescriptor sBSA_Object; /* copy of the caller's descriptor */
    BSA_ObjectOwner sBSA_ObjectOwner; /* not used */
    _sSMS sSMS;
} _sObject;

/* Settings and identifiers for the COM utility. */
typedef struct
{
    char szKORVAServer[128];     /* KORVA_SERVER */
    char szJobName[256];         /* KORVA_JOB, then the answer */
    char szKORVATapeServer[128]; /* KORVA_TAPE_SERVER */
    char szDrive[8];             /* KORVA_DRIVE */
    char szPool[256];            /* KORVA_POOL */
    char szCOMTimeOut[8];        /* KORVA_COM_TIMEOUT */
    char szSessionID[256];       /* by the answer */
    char szSavesetID[256];       /* seconds since 1970 at the opening of a job, then the answer */
    char szRestoreID[256];       /* by the answer */
    int iOpenJobStarted;         /* 1 from the opening of a job to the next */
} STUCT_COM_INPUT;

/* Everything. The order of the fields is part of the interface. */
typedef struct
{
    _sSession sSession;
    _sObject sObject;
    STUCT_COM_INPUT sCOM;
    BSA_QueryDescriptor sQueryDescriptor;                    /* copy of the last query */
    BSA_ObjectDescriptor *spQueryResult[XBSA_QUERY_RESULTS]; /* heap copies, null at the end */
    int iQueryIndex;                                         /* next result to return */
    unsigned long ulTimeOut;                                 /* BSA_TIMEOUT, seconds */
    unsigned char ucXBSATraceLevel;                          /* TRACE_ bits */
    BSA_TraceFunc vpExternalTraceFunc;                       /* caller's sink or null */
    int iReadTraceEnvironment;                               /* 1: the environment decides */
    char szLogFile[4096];                                    /* path; empty: no log file */
    int hLogFile;                                            /* open log; 0 or -1: none */
    char *cpTraceBuffer;                                     /* XBSA_TRACE_SIZE bytes or null */
    int iQAB;                                                /* 1: Informix mode */
} _sGlobal;

extern _sGlobal sGlobal;

/* --- Return codes and environment (src/api) ------------------------------------------------- */

/* Text of a return code, never null. An unknown code gives "The function succeeded." too. */
const char *xbsa_typeerr(int iFlag);

/* Checks nothing. Returns 0. */
int xbsa_authorize(BSA_SecurityToken *tokenPtr, BSA_ObjectOwner *objectOwnerPtr);

/*
 * Reads the KORVA_ variables into the record; ignores values that are too long.
 * Returns 0, or 1 when KORVA_SERVER or KORVA_JOB is missing or too long (reading stops there).
 */
int get_COM_environment(STUCT_COM_INPUT *I_spCOMInput);

/* Reads the trace variables into sGlobal. Kept for callers; the library does not use it. */
void xbsa_read_environment(void);

/* getenv under two names. */
char *xbsa_getenv(const char *cpEnvVar);
char *x_getenv(const char *cpEnvVar);

/* --- Trace and error texts (src/trace) ------------------------------------------------------ */

/* Sends a text to the caller's sink and, if the level asks for it, to log and standard error. */
void ie_trace(const char *cpMessage);

/* Writes one line with a time stamp to the log and to standard error, as the level asks. */
void i_trace(const char *cpTraceMessage);

/* ie_trace if the verbosity is above 1. */
void COM_trace(const char *cpCOMTraceMessage);

/* Opens the log that level, environment and file name select; a failure is silent. */
void i_open_trace(void);

/* Closes the log and frees the trace buffer. The library never calls it. */
void i_close_trace(void);

/* Reads XBSA_TRACE and XBSA_LOGFILE. Returns 1 if it read a file name, else 0. */
int i_ReadTraceEnvironment(void);

/* Sets the log to $INFORMIXDIR/xbsa.log in Informix mode, else to xbsa.log. */
void i_SetDefaultLogFileName(void);

/*
 * Hex dump, 16 bytes per line.
 *   data, length  the bytes
 *   fpTrace       gets each line; null for standard output
 */
void x_Dump(unsigned char *data, unsigned int length, BSA_TraceFunc fpTrace);

/* The thread's errno. */
unsigned long GetSockErrCode(void);

/*
 * Makes one text of an error number and a description, and keeps it as the last message if that
 * is empty.
 *   dwSysErrCode  error number; 0 for the description alone
 *   iErrFlag      0 no system text; 1 number of the message table; 2 and 3 errno
 *   cpAddDesc     printf format of the description; may be null
 * Returns a static text of at most XBSA_TRACE_SIZE bytes, valid until the next call.
 */
char *SysErrorTxt(unsigned long dwSysErrCode, int iErrFlag, const char *cpAddDesc, ...)
    __attribute__((format(printf, 3, 4)));

/* Another formatter for callers, with a text of 512 bytes. It does not set the last message. */
char *syserrtxt(unsigned long ulSysErrCode, int iErrFlag, const char *cpAddDesc, ...)
    __attribute__((format(printf, 3, 4)));

/* --- COM utility (src/com) ------------------------------------------------------------------ */

/*
 * Finds the COM utility through /etc/korva2000.ini.
 *   cpCOMCMD         receives the path; must contain an empty text
 *   uipCOMCMDLen     in: buffer size; out: length of the directory's name
 * Returns 0; 1 if the file or the key is missing or the buffer too small.
 */
int find_com_intf(char *cpCOMCMD, unsigned int *uipCOMCMDLen);

/*
 * Runs the utility for one task and stores its answer in sGlobal.
 * Returns 0; 1 for a local failure, an invalid task or a null input; -1 if the utility refused or
 * a command line did not fit (sSMS.iOpStatus is then 3).
 */
int com_intf(ENUM_COM_TASK I_enumCOMTask, STUCT_COM_INPUT *I_spCOMInput);

/* Names for the trace, each in a static text of 64 bytes; "UNKNOWN" for other values. */
char *com_task_keyword(ENUM_COM_TASK I_enumCOMTask);
char *com_step_keyword(int I_iStep);

/* Line sink for x_Dump: traces "Dumping memory: [line]". */
void DumpTraceAdapter(char *cpDumpLine);

/*
 * Stores the key=value lines of an answer in sGlobal; cuts the buffer into lines.
 *   I_bypBuff     the answer, with a terminator after it
 *   I_uiBuffLen   its length in bytes
 * Returns 0, or 1 if the answer is not positive.
 */
int parse_com_answer(char *I_bypBuff, unsigned int I_uiBuffLen);

/*
 * Splits "host[:port[:user:password]]".
 *   cpHost, cpUser, cpPasswd  4096 bytes each; cpPort 8 bytes
 * Returns 1, or 0 if the text is unusable.
 */
int ParseCLIHostSpec(char *cpHostSpecStr, char *cpHost, char *cpPort, char *cpUser, char *cpPasswd);

/* Converts a to z to upper case in place; returns the text. */
char *strupr(char *string);

/* --- Descriptor texts (src/api) ------------------------------------------------------------- */

/* Constant text of a value, or null. */
const char *qab_bsacopytype(BSA_CopyType eFlag);
const char *qab_bsaobjecttype(BSA_ObjectType eFlag);
const char *qab_bsaobjectstatus(BSA_ObjectStatus eFlag);

/* Traces every field of a descriptor; a password in its owner is masked. */
void qab_dumpobject(BSA_ObjectDescriptor *objectDescriptionPtr);

/* --- Server session (src/session) ----------------------------------------------------------- */

/* Connects to sSMS.szHostName and iPort. Returns the control socket (the caller's), or -1. */
int xbsa_connect(void);
int STPC_connect(void);

/* Switches on keep-alive for a control socket. Returns 0 or -1. */
int xbsaCSopt(int hCSocket);

/* Does nothing. Returns 0. */
int xbsaDSopt(int hDSocket, ENUM_DIRECTION eDirection);

/*
 * Connects, logs in and opens the transfer of sSMS.szName.
 *   iMode  STOR_MODE or RETR_MODE
 * Returns the data socket, also in sSession.SData (BSAEndData closes it), or -1.
 */
int xbsa_open(int iMode);

/*
 * Fills the command list from sSMS.
 *   cpaCommands  XBSA_COMMAND_SLOTS texts of XBSA_REPLY_SIZE bytes each
 * Returns 0, or -1 if a value contains a control character or does not fit.
 */
int xbsa_prepare_commands(char **cpaCommands, int iMode);

/*
 * Makes the login identity: user "sms", password "account@host" as the server would see it.
 *   hSocket                          the connected control socket
 *   cpUser, uipUserLen               in: buffer size; out: length
 *   cpPassword, uipPasswordLen       in: buffer size; out: length
 * Returns 0 or -1.
 */
int make_KORVA_authentication(int hSocket, char *cpUser, unsigned int *uipUserLen, char *cpPassword,
                              unsigned int *uipPasswordLen);

/* --- Transfer protocol (src/stpc) ----------------------------------------------------------- */

/*
 * Reads one reply line, byte by byte, with all signals blocked.
 *   szMessage  iMsgLen bytes, zeroed by the caller: a line that fills them has no terminator
 * Returns 1 for a line, 0 if the peer closed (the buffer is then filled), -1 for an error.
 */
int stpc_recv(int SControl, char *szMessage, const int iMsgLen, int iRecvOpt);
int STPC_receive(int SControl, char *szMessage, const int iMsgLen, int iRecvOpt);

/* Sends iMsgLen bytes. Returns the size of the last piece sent, or -1. */
int stpc_send(int SControl, char *szMessage, const int iMsgLen, int iSendOpt);
int STPC_send(int SControl, char *szMessage, const int iMsgLen, int iSendOpt);

/* recv, send and close of the system. */
int SOCKET_recv(int hSocket, char *cpBuffer, int iLen, int iFlags);
int SOCKET_send(int hSocket, char *cpBuffer, int iLen, int iFlags);
int SOCKET_close(int hSocket);

/* Listens and sends the address with PORT. Returns the listener, which the caller closes, or -1. */
int stpc_port(int SControl);

/* Open one transfer (STOR, RETR, LIST). Return the data socket, which the caller closes, or -1. */
int stpc_stor(char *cpRemoteTarget, int SControl);
int stpc_retr(char *cpRemoteSource, int SControl);
int stpc_list(char *cpRemoteSource, int SControl);
int STPC_stor(char *cpRemoteTarget, int SControl);
int STPC_retr(char *cpRemoteSource, int SControl);
int STPC_list(char *cpRemoteSource, int SControl);

/* Stores TAPE and SEGMENT of the reply to STOR in sSMS; 0 if missing. */
void sms_parseinfo(char *szMessage);

/* --- Helpers (src/util) --------------------------------------------------------------------- */

/* 1 for null, empty or only spaces (a tab is not a space), else 0. */
int x_IsEmptyString(const char *cpString);

/*
 * Checks whether the input is the keyword or an abbreviation of it.
 *   iMinLen     shortest abbreviation in characters; 0 or less, or too long: the whole keyword
 *   cpEndChars  characters that end the input; may be null
 *   iCase       non-zero: letter case counts
 * Returns 1 or 0.
 */
int x_MatchKeyword(const char *cpInput, const char *cpKeyword, int iMinLen, const char *cpEndChars,
                   int iCase);

/* Trim spaces in place and return the text. x_LTrim leaves the old tail: "  ab" gives "abab". */
char *x_LTrim(char *cpString);
char *x_RTrim(char *cpString);
char *x_AllTrim(char *cpString);

void *x_Malloc(size_t uSize);
void x_Free(void *vpMemory);

/*
 * A stopwatch: start allocates the handle's record, stop frees it.
 *   ulpMilliseconds  receives the elapsed milliseconds of wall time
 * x_TimerStart returns 0, or -1 if memory is exhausted (the handle is then null).
 */
int x_TimerStart(void **vppTimer);
void x_TimerStop(void *vpTimer, unsigned long *ulpMilliseconds);

#ifdef __cplusplus
}
#endif

#endif
