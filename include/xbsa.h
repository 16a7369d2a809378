/*
 * Korva XBSA: the calls and types for a database's backup tool.
 *
 * The library serves one session per process, on the caller's thread. Every call
 * except BSASetTrace returns one of the BSA_RC_ codes below. No call throws,
 * installs a signal handler or ends the process. Order of a backup:
 *
 *   BSAInit, BSABeginTxn, BSACreateObject, BSASendData (as often as needed),
 *   BSAEndData, BSAEndTxn, BSATerminate
 *
 * A restore calls BSAGetObject and BSAGetData instead of the two in the middle, a
 * query BSAQueryObject and BSAGetNextQueryObject. Each of BSACreateObject,
 * BSAGetObject, BSAEndData and BSAQueryObject runs once per transaction.
 *
 * "Text" below means a NUL-terminated string. A text field that is full may lack
 * the terminator, because the library never reads past a field.
 */
#ifndef XBSA_H
#define XBSA_H

#include <time.h>

#ifdef __cplusplus
extern "C" {
#endif

/* --- Return codes -------------------------------------------------------------------------- */

/* Several names share a number, because callers rely on the numbers. */
enum
{
    BSA_RC_SUCCESS = 0,
    BSA_RC_ABORT_SYSTEM_ERROR = 3, /* server, network or system failed: see BSAGetLastError */
    BSA_RC_ACCESS_FAILURE = 3,
    BSA_RC_INVALID_COPYID = 3,
    BSA_RC_INVALID_DATABLOCK = 3,
    BSA_RC_VERSION_NOT_SUPPORTED = 3,
    BSA_RC_AUTHENTICATION_FAILURE = 4,
    BSA_RC_INVALID_CALL_SEQUENCE = 5, /* already called, or called too early */
    BSA_RC_INVALID_HANDLE = 6,        /* not the handle from BSAInit */
    BSA_RC_BUFFER_TOO_SMALL = 7,
    BSA_RC_INVALID_VOTE = 11,
    BSA_RC_INVALID_ENV = 12,
    BSA_RC_NO_MATCH = 17,     /* no stored copy matches the query */
    BSA_RC_NO_MORE_DATA = 18, /* after the last query result */
    BSA_RC_INVALID_OBJECTDESCRIPTOR = 21,
    BSA_RC_INVALID_QUERYDESCRIPTOR = 22,
    BSA_RC_NULL_ARGUMENT = 22, /* a required argument is null or empty */
    BSA_RC_OBJECT_NOT_FOUND = 26,
    BSA_RC_TRANSACTION_ABORTED = 32
};

/* --- Types --------------------------------------------------------------------------------- */

/* A caller may store any number in an enumeration; from C++11 on this makes each a valid value. */
#if defined(__cplusplus) && __cplusplus >= 201103L
#define XBSA_INT : int
#else
#define XBSA_INT
#endif

typedef unsigned short BSA_UInt16;
typedef unsigned int BSA_UInt32;

/* A 64-bit number in two words. */
typedef struct
{
    BSA_UInt32 left;  /* high word */
    BSA_UInt32 right; /* low word */
} BSA_UInt64;

typedef struct
{
    BSA_UInt16 issue;
    BSA_UInt16 version;
    BSA_UInt16 level;
} BSA_ApiVersion;

typedef char BSA_SecurityToken[64]; /* text; traced unmasked, so never put a secret here */

typedef enum XBSA_INT
{
    BSA_CopyType_ANY = 1, /* queries only */
    BSA_CopyType_ARCHIVE = 2,
    BSA_CopyType_BACKUP = 3
} BSA_CopyType;

typedef enum XBSA_INT
{
    BSA_ObjectType_ANY = 1,
    BSA_ObjectType_FILE = 2,
    BSA_ObjectType_DIRECTORY = 3,
    BSA_ObjectType_OTHER = 4
} BSA_ObjectType;

typedef enum XBSA_INT
{
    BSA_ObjectStatus_ANY = 1,
    BSA_ObjectStatus_MOST_RECENT = 2,
    BSA_ObjectStatus_NOT_MOST_RECENT = 3
} BSA_ObjectStatus;

typedef enum XBSA_INT
{
    BSA_Vote_COMMIT = 1,
    BSA_Vote_ABORT = 2
} BSA_Vote;

/*
 * Who owns an object. The owner "INFORMIX" in BSAInit selects Informix mode (with
 * the COM utility). Any other owner selects plain mode. There the owner in each
 * object's descriptor contains the server login as two tokens separated by ":",
 * each after a tag of five characters: "user=backup:pass=secret".
 */
typedef struct
{
    char bsa_ObjectOwner[64]; /* text */
    char app_ObjectOwner[64]; /* text; traced only */
} BSA_ObjectOwner;

/* The name of an object: the file and the directory on an FTP server. */
typedef struct
{
    char objectSpaceName[1024]; /* text: the file name; a backup needs one */
    char pathName[1024];        /* text: the directory, for CWD */
} BSA_ObjectName;

/* One buffer of data, at most 65,535 bytes. */
typedef struct
{
    BSA_UInt16 bufferLen; /* bytes that BSASendData sends, or room for BSAGetData */
    BSA_UInt16 numBytes;  /* bytes: set by BSAGetData; BSASendData only traces it */
    char *bufferPtr;      /* the caller's bytes; may be null when bufferLen is 0 */
} BSA_DataBlock16;
typedef BSA_DataBlock16 BSA_DataBlock;

typedef struct
{
    BSA_UInt32 rsv1;
    BSA_ObjectOwner objectOwner;
    BSA_ObjectName objectName;
    struct tm createTime; /* UTC; set by BSACreateObject */
    BSA_CopyType copyType;
    BSA_UInt64 copyId;       /* right: number of the stored copy; left: for the caller */
    BSA_UInt64 restoreOrder; /* for the caller */
    char rsv2[31];
    char rsv3[31];
    BSA_UInt64 estimatedSize; /* bytes; not used */
    char resourceType[31];
    BSA_ObjectType objectType;
    BSA_ObjectStatus objectStatus; /* BSACreateObject sets BSA_ObjectStatus_ANY */
    char rsv4[31];
    char objectDescription[100];
    unsigned char objectInfo[256]; /* BSACreateObject writes the text "SEGMENT=n" */
} BSA_ObjectDescriptor;

typedef struct
{
    BSA_ObjectOwner objectOwner;
    BSA_ObjectName objectName; /* the server interprets patterns */
    struct tm rsv1;
    struct tm rsv2;
    struct tm rsv3;
    struct tm rsv4;
    BSA_CopyType copyType;
    char rsv5[31];
    char rsv6[31];
    char rsv7[31];
    BSA_ObjectType objectType;
    BSA_ObjectStatus objectStatus;
    char rsv8[100];
} BSA_QueryDescriptor;

/* A caller's trace sink: gets each trace text without time stamp, valid during the call only. */
typedef void (*BSA_TraceFunc)(char *cpMessage);

/* --- Session and transaction --------------------------------------------------------------- */

/*
 * Opens the session of this process and the trace log.
 *   bsaHandlePtr    receives the handle (the process ID); must not be null
 *   tokenPtr        traced only; may be null
 *   objectOwnerPtr  "INFORMIX" in bsa_ObjectOwner selects Informix mode; must not be null
 *   environmentPtr  "NAME=value" texts, a null pointer at the end; may be null. Known names:
 *                   BSA_API_VERSION (must begin with 1), BSA_SERVICE_HOST (host or host:port,
 *                   default port 21), BSA_TIMEOUT (seconds to wait for a data connection,
 *                   0 = no limit)
 * Returns 0; 3 for another API version (but sets the handle); 5 when a session is open; 22 for a
 * null argument.
 */
int BSAInit(long *bsaHandlePtr, BSA_SecurityToken *tokenPtr, BSA_ObjectOwner *objectOwnerPtr,
            char **environmentPtr);

/* Only checks the handle: the session record and the trace stay open. Returns 0 or 6. */
int BSATerminate(long bsaHandle);

/* Opens a transaction. Returns 0; 5 when one is open; 6 for a wrong handle. */
int BSABeginTxn(long bsaHandle);

/*
 * Ends the transaction. Whatever it returns, every call is allowed again. In strict mode it resets
 * the connection of an object that is still open.
 *   vote  ignored: a stored object stays stored
 * Returns 0; 5 when no transaction is open; 6 for a wrong handle.
 */
int BSAEndTxn(long bsaHandle, BSA_Vote vote);

/* --- Backup -------------------------------------------------------------------------------- */

/*
 * Opens the transfer of one object to the server.
 *   objectDescriptorPtr  the object; needs a name in objectSpaceName and a copyType other than
 *                        ANY. Success fills in copyId, createTime, objectStatus and objectInfo,
 *                        a failure changes nothing; null gives 22
 *   dataBlockPtr         not touched; may be null
 * Returns 0; 3 when the server cannot be reached or refuses; 5; 6; 22 for an unusable descriptor.
 */
int BSACreateObject(long bsaHandle, BSA_ObjectDescriptor *objectDescriptorPtr,
                    BSA_DataBlock *dataBlockPtr);

/*
 * Sends bufferLen bytes of the open object. Retries a failed send five times, one second apart.
 * Blocks while the server does not accept data.
 *   dataBlockPtr  null, or a null bufferPtr with a bufferLen, gives 22
 * Returns 0 when the system has accepted all bytes; 3; 6; 22; in strict mode 5 during a restore.
 */
int BSASendData(long bsaHandle, BSA_DataBlock *dataBlockPtr);

/*
 * Ends the object of a backup or a restore: closes the data connection, waits for the server's
 * closing reply, sends QUIT and, in Informix mode, closes the job. A backup is stored only when
 * this call returns 0.
 * Returns 0; 3 when the server did not confirm the backup, or the job could not be closed, or a
 * backup has the wrong handle or order. The closing reply of a restore counts in strict mode only.
 */
int BSAEndData(long bsaHandle);

/* --- Restore ------------------------------------------------------------------------------- */

/*
 * Opens the transfer of one object from the server.
 *   objectDescriptorPtr  names the object; not changed; null gives 22
 *   dataBlockPtr         not touched; may be null
 * Returns 0; 3 when the server cannot be reached or refuses; 5; 6; 22.
 */
int BSAGetObject(long bsaHandle, BSA_ObjectDescriptor *objectDescriptorPtr,
                 BSA_DataBlock *dataBlockPtr);

/*
 * Fills the caller's buffer. The end of the object has no code: numBytes is then below bufferLen.
 *   dataBlockPtr  numBytes receives the bytes read, even after a failure; null, or a null
 *                 bufferPtr with a bufferLen, gives 22
 * Returns 0; 3 when the connection failed; 6; 22; in strict mode 5 during a backup.
 */
int BSAGetData(long bsaHandle, BSA_DataBlock *dataBlockPtr);

/* --- Query (Informix mode) ----------------------------------------------------------------- */

/*
 * Asks for the matching stored copy and returns the first match.
 *   queryDescriptorPtr   what to look for; not changed; null gives 22
 *   objectDescriptorPtr  receives the match, with the owner, name and copy type of the query;
 *                        unchanged when nothing matches; null gives 22
 * Returns 0 (in plain mode without asking); 3; 5; 6; 17 when nothing matches; 22.
 */
int BSAQueryObject(long bsaHandle, BSA_QueryDescriptor *queryDescriptorPtr,
                   BSA_ObjectDescriptor *objectDescriptorPtr);

/* Returns the next match. Result 0; 5 before any query; 6; 18 after the last match; 22 for null. */
int BSAGetNextQueryObject(long bsaHandle, BSA_ObjectDescriptor *objectDescriptorPtr);

/* --- Information --------------------------------------------------------------------------- */

/*
 * Copies the text of the first error since the last call, and clears it.
 *   sizePtr       in: buffer size including the terminator; out: bytes written without it
 *   errorCodePtr  receives the text (at most 1,536 bytes with its terminator); empty for no error
 * Returns 0; 7 when the buffer is too small (nothing changes); 22 when either pointer is null.
 */
int BSAGetLastError(BSA_UInt32 *sizePtr, char *errorCodePtr);

/* Returns the interface version, 1.0.1, and opens the trace. Result 0, or 22 for null. */
int BSAQueryApiVersion(BSA_ApiVersion *apiVersionPtr);

/*
 * Returns the provider's name, "TOV:KORVA:1.8A1".
 *   sizePtr      in: buffer size, at least 15; out: 15, the length without terminator
 *   delimiter    receives ":" and its terminator: 2 bytes
 *   providerPtr  receives 15 characters and a terminator: 16 bytes, even for a size of 15
 * Returns 0; 7 when the size is below 15; 22 when any pointer is null.
 */
int BSAQueryServiceProvider(BSA_UInt32 *sizePtr, char *delimiter, char *providerPtr);

/* Does nothing, because the server decides how long copies live. Returns 0. */
int BSADeleteObject(long bsaHandle, BSA_UInt64 copyId);

/* Does nothing and writes nothing. Returns 0. */
int BSAGetEnvironment(long bsaHandle, BSA_UInt32 *sizePtr, char **environmentPtr);

/*
 * Sets the trace from the calling program. Call it before BSAInit, which opens the log file.
 *   fpExternalTraceFunc   gets every text; may be null
 *   cpExternLogFileName   path of the log, at most 4,095 bytes; "ENVIRONMENT": use the
 *                         variables XBSA_TRACE and XBSA_LOGFILE; null: the default name
 *   ucTraceLevel          low six bits: 0 or 1 silent, 2 steps, 3 every call; plus 64: to the
 *                         log file; plus 128: to standard error
 */
void BSASetTrace(BSA_TraceFunc fpExternalTraceFunc, char *cpExternLogFileName,
                 unsigned char ucTraceLevel);

#ifdef __cplusplus
}
#endif

#endif
