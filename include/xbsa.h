/*
 * Korva XBSA: the calls and types that a database's backup tool uses.
 *
 * The library serves one session in a process, on the caller's thread. Every
 * call returns one of the BSA_RC_ codes below; none of them throws, installs a
 * signal handler or ends the process. Order of a backup:
 *
 *   BSAInit, BSABeginTxn, BSACreateObject, BSASendData (as often as needed),
 *   BSAEndData, BSAEndTxn, BSATerminate
 *
 * Of a restore: the same with BSAGetObject and BSAGetData in the middle. Of a
 * query: BSAQueryObject and BSAGetNextQueryObject. Within one transaction each
 * of create, get, end of data and query runs once.
 *
 * "Text" below means a NUL-terminated string. A text field that is filled to
 * its last byte may lack the terminator: the library never reads past a field.
 */
#ifndef XBSA_H
#define XBSA_H

#include <time.h>

#ifdef __cplusplus
extern "C" {
#endif

/* --- Return codes -------------------------------------------------------------------------- */

/* Several names share a number: callers know the numbers, so they stay. */
enum
{
    BSA_RC_SUCCESS = 0,
    BSA_RC_ABORT_SYSTEM_ERROR = 3, /* server, network or system failed: see BSAGetLastError */
    BSA_RC_ACCESS_FAILURE = 3,
    BSA_RC_INVALID_COPYID = 3,
    BSA_RC_INVALID_DATABLOCK = 3,
    BSA_RC_VERSION_NOT_SUPPORTED = 3,
    BSA_RC_AUTHENTICATION_FAILURE = 4,
    BSA_RC_INVALID_CALL_SEQUENCE = 5, /* this call was made already, or came too early */
    BSA_RC_INVALID_HANDLE = 6,        /* not the handle that BSAInit gave */
    BSA_RC_BUFFER_TOO_SMALL = 7,
    BSA_RC_INVALID_VOTE = 11,
    BSA_RC_INVALID_ENV = 12,
    BSA_RC_NO_MATCH = 17,     /* no stored copy matches the query */
    BSA_RC_NO_MORE_DATA = 18, /* the last query result was handed out */
    BSA_RC_INVALID_OBJECTDESCRIPTOR = 21,
    BSA_RC_INVALID_QUERYDESCRIPTOR = 22,
    BSA_RC_NULL_ARGUMENT = 22, /* a null or empty argument that must not be */
    BSA_RC_OBJECT_NOT_FOUND = 26,
    BSA_RC_TRANSACTION_ABORTED = 32
};

/* --- Types --------------------------------------------------------------------------------- */

/* A caller may put any number into an enumeration; in C++11 this makes each of them a valid value. */
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

typedef char BSA_SecurityToken[64]; /* text; traced in plain, so never put a secret here */

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
 * Who owns an object. The owner "INFORMIX", given to BSAInit, makes an Informix
 * session (with the COM utility). In any other session the owner in each
 * object's descriptor carries the server login as two tokens divided by ":",
 * each behind a tag of five characters: "user=backup:pass=secret".
 */
typedef struct
{
    char bsa_ObjectOwner[64]; /* text */
    char app_ObjectOwner[64]; /* text; traced only */
} BSA_ObjectOwner;

/* The name of an object: on an FTP server the file and the folder. */
typedef struct
{
    char objectSpaceName[1024]; /* text: the file name; must not be empty in a backup */
    char pathName[1024];        /* text: the folder that the server changes to */
} BSA_ObjectName;

/* One buffer of data; the 16-bit variant: 65,535 bytes at most. */
typedef struct
{
    BSA_UInt16 bufferLen; /* bytes: BSASendData sends so many, BSAGetData has room for so many */
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
    BSA_UInt64 copyId;       /* right: number of the stored copy, left: the caller's */
    BSA_UInt64 restoreOrder; /* the caller's */
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
    BSA_ObjectName objectName; /* patterns are the server's business */
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

/* A caller's trace sink: gets every trace text, without time stamp, valid during the call only. */
typedef void (*BSA_TraceFunc)(char *cpMessage);

/* --- Session and transaction --------------------------------------------------------------- */

/*
 * Opens the session of this process and the trace log.
 *   bsaHandlePtr    receives the handle (the process id); must not be null
 *   tokenPtr        traced only; may be null
 *   objectOwnerPtr  "INFORMIX" in bsa_ObjectOwner makes an Informix session; must not be null
 *   environmentPtr  "NAME=value" texts, a null pointer at the end; may be null. Known names:
 *                   BSA_API_VERSION (must begin with 1), BSA_SERVICE_HOST (host or host:port,
 *                   port 21 when none is given), BSA_TIMEOUT (seconds, 0 = no limit, for the
 *                   wait for a data connection)
 * Returns 0; 3 for another API version (the handle is set all the same); 5 when a session is
 * open; 22 for a null argument.
 */
int BSAInit(long *bsaHandlePtr, BSA_SecurityToken *tokenPtr, BSA_ObjectOwner *objectOwnerPtr,
            char **environmentPtr);

/* Checks the handle and no more: the session record and the trace stay. Returns 0 or 6. */
int BSATerminate(long bsaHandle);

/* Opens a transaction. Returns 0; 5 when one is open; 6 for a wrong handle. */
int BSABeginTxn(long bsaHandle);

/*
 * Ends the transaction and, whatever it returns, makes each call possible again. In strict mode it
 * cuts an object that is still open.
 *   vote  is not looked at: a stored object stays stored
 * Returns 0; 5 when no transaction is open; 6 for a wrong handle.
 */
int BSAEndTxn(long bsaHandle, BSA_Vote vote);

/* --- Backup -------------------------------------------------------------------------------- */

/*
 * Opens the transfer of one object to the server.
 *   objectDescriptorPtr  the object: a name in objectSpaceName and a copyType other than ANY are
 *                        needed. Completed on success (copyId, createTime, objectStatus,
 *                        objectInfo), unchanged on a failure; null gives 22
 *   dataBlockPtr         not touched; may be null
 * Returns 0; 3 when the server cannot be reached or refuses; 5; 6; 22 for an unusable descriptor.
 */
int BSACreateObject(long bsaHandle, BSA_ObjectDescriptor *objectDescriptorPtr,
                    BSA_DataBlock *dataBlockPtr);

/*
 * Sends bufferLen bytes of the open object. A failed send is tried again five times, one second
 * apart; the call blocks while the server takes no data.
 *   dataBlockPtr  null, or a null bufferPtr with a bufferLen, gives 22
 * Returns 0 when all bytes were handed to the system; 3; 6; 22; in strict mode 5 in a restore.
 */
int BSASendData(long bsaHandle, BSA_DataBlock *dataBlockPtr);

/*
 * Ends the object of a backup or a restore: closes the data connection, waits for the server's
 * closing reply, says QUIT, and closes the job of an Informix session. Only after 0 a backup is
 * stored.
 * Returns 0; 3 when the server did not confirm the backup or the job could not be closed (a
 * restore's closing reply counts in strict mode only); 3 also for a wrong order or handle of a
 * backup.
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
 * Fills the caller's buffer. There is no code for the end of the object: it is reached when
 * numBytes stays below bufferLen.
 *   dataBlockPtr  numBytes receives the bytes read, in a failure too; null, or a null bufferPtr
 *                 with a bufferLen, gives 22
 * Returns 0; 3 when the connection failed; 6; 22; in strict mode 5 in a backup.
 */
int BSAGetData(long bsaHandle, BSA_DataBlock *dataBlockPtr);

/* --- Query (Informix sessions) ------------------------------------------------------------- */

/*
 * Asks for the stored copy that matches, and hands back the first match.
 *   queryDescriptorPtr   what is looked for; not changed; null gives 22
 *   objectDescriptorPtr  receives the match, with the query's own owner, name and copy type;
 *                        unchanged when there is none; null gives 22
 * Returns 0 (in a session that is not an Informix one: without asking); 3; 5; 6; 17 for no match;
 * 22.
 */
int BSAQueryObject(long bsaHandle, BSA_QueryDescriptor *queryDescriptorPtr,
                   BSA_ObjectDescriptor *objectDescriptorPtr);

/* Hands back the next match. Returns 0; 5 before any query; 6; 18 after the last; 22 for null. */
int BSAGetNextQueryObject(long bsaHandle, BSA_ObjectDescriptor *objectDescriptorPtr);

/* --- Information --------------------------------------------------------------------------- */

/*
 * Takes the text of the first error since the last call, and forgets it.
 *   sizePtr       in: bytes of room, the terminator included; out: bytes written without it
 *   errorCodePtr  receives the text (at most 1,536 bytes with its terminator); empty for no error
 * Returns 0; 7 when the room does not suffice (nothing is changed); 22 when either is null.
 */
int BSAGetLastError(BSA_UInt32 *sizePtr, char *errorCodePtr);

/* Gives the interface version, 1.0.1, and opens the trace. Returns 0, or 22 for null. */
int BSAQueryApiVersion(BSA_ApiVersion *apiVersionPtr);

/*
 * Gives the provider's name, "TOV:KORVA:1.8A1".
 *   sizePtr      in: bytes of room, 15 or more; out: 15, the length without terminator
 *   delimiter    receives ":" and its terminator: 2 bytes
 *   providerPtr  receives 15 characters and a terminator: 16 bytes, even for a size of 15
 * Returns 0; 7 when the size is below 15; 22 when any is null.
 */
int BSAQueryServiceProvider(BSA_UInt32 *sizePtr, char *delimiter, char *providerPtr);

/* Does nothing: copies live as long as the server keeps them. Returns 0. */
int BSADeleteObject(long bsaHandle, BSA_UInt64 copyId);

/* Does nothing and writes nothing. Returns 0. */
int BSAGetEnvironment(long bsaHandle, BSA_UInt32 *sizePtr, char **environmentPtr);

/*
 * Sets the trace from the calling program; best before BSAInit, which opens the log file.
 *   fpExternalTraceFunc   gets every text; null for none
 *   cpExternLogFileName   path of the log, 4,095 bytes at most; "ENVIRONMENT": the variables
 *                         XBSA_TRACE and XBSA_LOGFILE decide; null: the default name
 *   ucTraceLevel          low six bits: 0 or 1 silent, 2 steps, 3 every call; plus 64: to the
 *                         log file; plus 128: to standard error
 */
void BSASetTrace(BSA_TraceFunc fpExternalTraceFunc, char *cpExternLogFileName,
                 unsigned char ucTraceLevel);

#ifdef __cplusplus
}
#endif

#endif
