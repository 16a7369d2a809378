// The knowledge base: all its rows.
#include "explain/table.h"

namespace explain
{
namespace
{
constexpr ROW TABLE[] = {
    {KIND::RETURN_CODE, "BSA_RC_SUCCESS (0, 0x0)|The function succeeded.",
     "The call did what it should; a backup is stored only when BSAEndData returned this.",
     "The trace also prints this text for numbers that the library does not know.",
     "nothing; set KORVA_STRICT=1, so that no 0 hides a failure"},
    {KIND::RETURN_CODE,
     "BSA_RC_ABORT_SYSTEM_ERROR (3, 0x3)|System detected error, operation "
     "aborted.|BSA_RC_ACCESS_FAILURE (3, 0x3)|Access to the requested object is not possible.",
     "Server, network, COM utility or system failed; this object was not stored or restored.",
     "Any: the first message of the session names it.",
     "look for the first failing line of the trace (xbsactl trace LOG), or run xbsactl check"},
    {KIND::RETURN_CODE,
     "BSA_RC_INVALID_COPYID (3, 0x3)|The copyld field contains an unrecognized value.",
     "Another name for 3: a restore asked for a copy that the server does not have.",
     "The copy has expired on the server, or was stored under another job.",
     "query the object (xbsactl --informix query) and take the copy id from there"},
    {KIND::RETURN_CODE,
     "BSA_RC_VERSION_NOT_SUPPORTED (3, 0x3)|The Backup Service implementation does not support the "
     "specified version of the interface",
     "BSAInit got a BSA_API_VERSION that does not begin with 1 and returned 3.",
     "The sm_versions row names another version, or the program wants version 2.",
     "correct the sm_versions row: xbsactl setup writes the one that fits"},
    {KIND::RETURN_CODE,
     "BSA_RC_AUTHENTICATION_FAILURE (4, 0x4)|There was an authentication "
     "failure.|BSA_RC_OBJECT_NOT_FOUND (26, 0x1a)|There is no copy of the requested object.",
     "Never returned: a refused login or a missing object shows as 3 with the server's reply.",
     "See 530 and 550.", "explain 530 or 550"},
    {KIND::RETURN_CODE,
     "BSA_RC_INVALID_CALL_SEQUENCE (5, 0x5)|The sequence of API calls is incorrect.|Invalid "
     "calling sequence. Exiting.|There is no coresponding BsaBeginTxn() call. Exiting.",
     "The call was already made in this transaction, or came too early.",
     "The calling program left out BSABeginTxn or BSAEndTxn, often after an earlier failure.",
     "restart the program; look for the failure before this one"},
    {KIND::RETURN_CODE,
     "BSA_RC_INVALID_HANDLE (6, 0x6)|The handle used to associate this call with a previous "
     "BSAInit() call is invalid.|Invalid Handle. Exiting.",
     "The handle is not the one that BSAInit gave, which is the process id.",
     "The program forked after BSAInit, or kept a handle of another process.",
     "call BSAInit in the process that does the work"},
    {KIND::RETURN_CODE,
     "BSA_RC_BUFFER_TOO_SMALL (7, 0x7)|The supplied buffer is too small to contain the data, as "
     "specified by the accompanying size parameter.|BSAQueryServiceProvider: sizePtr too small. "
     "exiting.",
     "The buffer given to BSAGetLastError or BSAQueryServiceProvider is too small; nothing was "
     "changed.",
     "A size below 15 for the provider, or below the message's length.",
     "pass 16 bytes for the provider, 1,536 for the message"},
    {KIND::RETURN_CODE,
     "BSA_RC_INVALID_VOTE (11, 0xb)|The value specified for vote is invalid.|BSA_RC_INVALID_ENV "
     "(12, 0xc)|An entry in environment structure is invalid or "
     "missing.|BSA_RC_INVALID_OBJECTDESCRIPTOR (21, 0x15)|The BSA_ObjectDescriptor was "
     "invalid.|BSA_RC_TRANSACTION_ABORTED (32, 0x20)|The transaction was aborted.|BSA: unknown "
     "error code",
     "Never returned: the call that fails returns 3, 5, 6, 7, 17 or 22.", "", ""},
    {KIND::RETURN_CODE,
     "BSA_RC_NO_MATCH (17, 0x11)|No object matched the specified predicate.|BSAQueryObject: No "
     "match.",
     "The query found no stored copy, or KORVA did not answer.",
     "The object was never stored in this job, has expired, or the COM utility could not be run.",
     "check in the trace that the utility answered before you believe that there is no copy"},
    {KIND::RETURN_CODE,
     "BSA_RC_NO_MORE_DATA (18, 0x12)|No more data is available.|BSAGetNextQueryObject: No more "
     "data.",
     "The query has returned its last match: the normal end, and every call after a failed query.",
     "A query has one result.", "nothing"},
    {KIND::RETURN_CODE,
     "BSA_RC_NULL_ARGUMENT (22, 0x16)|A NULL pointer was encountered in one of the "
     "arguments.|BSA_RC_INVALID_QUERYDESCRIPTOR (22, 0x16)|The BSA_QueryDescriptor was "
     "invalid.|BSA_RC_INVALID_DATABLOCK (3, 0x3)|The BSA_DataBlock32 parameter contained an "
     "inconsistent value.|bsaHandlePtr == NULL|objectOwnerPtr == NULL|objectDescriptorPtr is NULL. "
     "Exiting.|queryDescriptorPtr is NULL. Exiting.|Returninig "
     "BSA_RC_NULL_ARGUMENT.|ObjectName.objectSpaceName is empty|copyType == "
     "BSA_CopyType_ANY|BSAQueryServiceProvider: ... == NULL",
     "The call returns 22: an argument is null, empty, or (backup) has the copy type ANY.",
     "A fault of the calling program.",
     "correct that program; the trace line before it names the argument"},

    {KIND::REASON, "library cannot be loaded|cannot open shared object file|wrong ELF class",
     "The library could not be loaded; a backup tool ends before its first call, so there is no "
     "trace.",
     "BAR_BSALIB_PATH or --library names no file, a relative path, a library of 32 bits, or one in "
     "a folder that the account may not enter.",
     "run xbsactl check --informixdir DIR; xbsactl setup writes the absolute path"},

    {KIND::DATABASE, "sm_versions row missing",
     "The backup tool refuses the storage manager: sm_versions has no row for it.",
     "The row was never added, or an upgrade of the database replaced the file.",
     "run xbsactl setup --informixdir DIR --dry-run, which prints the missing row"},
    {KIND::DATABASE, "BSAInit... 3", "The session was not opened.",
     "The program asked for another version of the interface (BSA_API_VERSION does not begin with "
     "1), or a KORVA_ variable of the data connection has a value that is not allowed.",
     "correct the sm_versions row, or the variable that the trace names"},
    {KIND::DATABASE, "BSACreateObject... 3",
     "The backup of one object did not begin; nothing was stored.",
     "The COM utility refused the job, or the server refused connection, login, folder or STOR.",
     "look for the first failing line before it in the trace; run xbsactl check"},
    {KIND::DATABASE, "BSAEndData... 3|Return CODE: 1|Return CODE: -1|Return CODE: 5|Return CODE: 6",
     "The object was not confirmed; do not count on this backup or restore.",
     "No 226 from the server, a failed send, or a job that the COM utility could not close.",
     "read the closing reply in the trace, and back up again"},
    {KIND::DATABASE, "BSAGetObject... 3", "The restore of one object did not begin.",
     "The copy is not there, or the server refused connection, login, folder or RETR.",
     "look for the first failing line before it in the trace; query the object"},
    {KIND::DATABASE, "BSAGetData... 3",
     "The data connection broke in the middle of a restore, or a signal interrupted it.",
     "The server failed to read its medium, or the network cut the connection.",
     "read the server's closing reply (BSAEndData in the trace), and restore again"},
    {KIND::DATABASE, "BSAQueryObject... 3|BSAQueryObject... 17",
     "The query returned no copy: 17 means no match, 3 that the utility answered ERROR.",
     "Another KORVA_JOB than at the backup, an expired copy, or no usable COM utility.",
     "run xbsactl --informix query with the same variables, and xbsactl check --informix"},

    {KIND::EXIT_CODE, "xbsactl exit code 0",
     "Done: the server confirmed the whole object, a restored file is on disk.", "", "nothing"},
    {KIND::EXIT_CODE, "xbsactl exit code 1|no reason given, --trace 2 shows the steps",
     "An object does not verify, a check failed, or the user declined a prompt.",
     "The line on standard error names the step.", "explain that line; add --trace 2"},
    {KIND::EXIT_CODE, "xbsactl exit code 2",
     "Wrong arguments or settings; nothing was sent or written.",
     "A missing option or variable, or a value outside its limits.", "run xbsactl --help"},
    {KIND::EXIT_CODE, "xbsactl exit code 3|no match",
     "The server, or the manifest, has no such object.",
     "Another name, space or KORVA_JOB than at the store, or an expired copy.",
     "run xbsactl --informix query without NAME; look into the manifest"},
    {KIND::EXIT_CODE, "xbsactl exit code 4",
     "The server failed or refused, or could not be reached.",
     "The line on standard error has its reply.", "explain that line; run xbsactl check"},
    {KIND::EXIT_CODE, "xbsactl exit code 5", "The COM utility failed or refused, or was not found.",
     "The line on standard error has its text.", "explain that line; run xbsactl check --informix"},
    {KIND::EXIT_CODE, "xbsactl exit code 6",
     "A file of this host cannot be used: input, target, manifest, status, password, library.",
     "The line on standard error names it.", "correct the path, its rights or its content"},
    {KIND::EXIT_CODE, "xbsactl exit code 130|exit code 129|exit code 131|exit code 143",
     "A signal stopped the tool (128 plus its number, as the shell counts).",
     "Ctrl-C, a closed terminal, or a scheduler's time limit.",
     "run it again: a stopped store is reset, a stopped restore leaves the old file"},
    {KIND::EXIT_CODE, "the server does not offer copy id ... after the store|library is not usable",
     "All calls of xbsactl succeeded, but the result cannot be trusted.",
     "The job closed without its copy becoming visible; or --library names another library.",
     "query again later, and read the server's own log; xbsactl check names the library"},

    {KIND::SERVER, "125 Data connection already open; transfer starting",
     "The server answered STOR or RETR with 125; the library accepts only 150.",
     "A server that connects at PORT (pyftpdlib by default).",
     "use a server, or a setting of it, that connects at STOR and answers 150 (vsftpd, ProFTPD, "
     "KORVA)"},
    {KIND::SERVER,
     "220-...|NEGATIVE reply: 2...|NEGATIVE reply: 3...|stpc_port: NEGATIVE reply: 2...|stpc_port: "
     "NEGATIVE reply: 3...|PORT ...: 2...",
     "The server greets with several lines, so each reply is taken for that of the next command.",
     "A banner is switched on at the server.",
     "switch the banner off (vsftpd: no banner_file; ProFTPD: DisplayConnect off; Pure-FTPd: "
     "FortunesFile with one line that everybody may read, and no NoAnonymous): the library reads "
     "one line only, and xbsactl check shows the greeting"},
    {KIND::SERVER, "421 Service not available",
     "The server turned the session away or ended it, at the greeting or after a silence.",
     "Too many connections at once, a shutdown, or its data time-out.",
     "raise the server's limit of sessions, for all and for each account and host, or run fewer "
     "backups at once; read its log"},
    {KIND::SERVER,
     "425 Can't open data connection|cannot connect back|no connection came|connection did not "
     "arrive|connected, but no reply to STOR|accept() failed.",
     "The server could not connect back to this host; nothing was transferred.",
     "A firewall: the server opens the data connection to the address and port of PORT.",
     "let the server open TCP connections to this host's ephemeral ports "
     "(net.ipv4.ip_local_port_range{ports}) in every firewall between: helpers that would do it by "
     "themselves (nf_conntrack_ftp) are off by default in current kernels"},
    {KIND::SERVER,
     "426 Connection closed; transfer aborted|551 Requested action aborted: page type unknown|551 "
     "Error on output file",
     "The server gave the transfer up; the object is not stored, or only in part.",
     "A broken network, a full disk, an object that it cannot read or write, or a client that "
     "died.",
     "read the server's log, and repeat"},
    {KIND::SERVER, "450 Requested file action not taken|451 Requested action aborted: local error",
     "The server cannot use the file now, or failed at it; the object is not stored.",
     "Another session writes the same name, a tape is busy, or its disk, its tape or the storage "
     "below fails.",
     "read the server's log; look for a full disk or quota, and let the account write and "
     "overwrite in the folder; repeat"},
    {KIND::SERVER, "452 Insufficient storage space|552 Exceeded storage allocation",
     "The server has no room; the object is not stored.", "A full disk, pool or quota.",
     "look for a full disk or quota: make room, or name another KORVA_POOL"},
    {KIND::SERVER,
     "500 Syntax error|500 OOPS|502 Command not implemented|503 Bad sequence of commands|504 "
     "Parameter not supported",
     "The server does not know the command, or (vsftpd, OOPS) is misconfigured.",
     "A command switched off at the server, a greeting of several lines, or a faulty "
     "configuration.",
     "allow active mode and binary transfers, switch banners off; read the server's log"},
    {KIND::SERVER,
     "stpc_port: NEGATIVE reply: ...|: NEGATIVE reply: 4...|: NEGATIVE reply: 5...|PORT ...: "
     "4...|PORT ...: 5...|501 Syntax error in parameters",
     "The server refused PORT, or its address.",
     "Active mode is switched off at the server, or address translation makes our address another "
     "one.",
     "allow active mode on the server (vsftpd: port_enable=YES), the library supports no other; "
     "connect without address translation, or through a tunnel"},
    {KIND::SERVER, "530 Login incorrect|530 Not logged in",
     "The login was refused; the sequence goes on, and STOR or RETR fails with 530 again.",
     "A wrong user or password, or an account that may not log in.",
     "correct --user or the password (XBSA_PASSWORD, --password-file), or let the account log in"},
    {KIND::SERVER, "Informix mode...: 530|Informix mode...: 530 Login incorrect",
     "KORVA's server refused this host or account: in Informix mode the login is the account's and "
     "the host's name.",
     "The server does not know account or host, or the host's name does not lead back to its "
     "address.",
     "add account and host on KORVA's server; compare this host's forward and reverse name "
     "(xbsactl check)"},
    {KIND::SERVER,
     ": 530 ...TLS...|: 530 ...SSL...|: 530 ...ncrypt...|: 5...TLS required|: 5...SSL/TLS "
     "required|: 530 ...secure...|: 421 ...TLS...|522 ...",
     "The server turned an unencrypted session away.",
     "TLS is required at the server (see the security page).",
     "the server demands encryption, which the library does not have: let it accept plain sessions "
     "from this host, on a trusted network or in a tunnel"},
    {KIND::SERVER, "550 Requested action not taken",
     "The server refused the folder (CWD), the object (RETR) or the name (STOR).",
     "The folder is missing (an empty one is sent as a bare CWD), the object does not exist, may "
     "not be overwritten (ProFTPD's default), or the account lacks rights.",
     "let the account write and overwrite in the folder, and look for a full disk or quota "
     "(vsftpd: write_enable=YES; ProFTPD: AllowOverwrite on); for a restore, query the object"},
    {KIND::SERVER, "CWD ...: 4...|CWD ...: 5...",
     "The server refused the folder; the object was not stored, so that it lands nowhere else.",
     "The folder is missing, the account may not enter it, or the path is right only outside the "
     "server's chroot.",
     "create the folder on the server and let the account enter it, or name another one with "
     "--path"},
    {KIND::SERVER, "553 Requested action not taken: file name not allowed",
     "The name of the object is refused; nothing is stored.",
     "No right to write in the folder, a name above 255 bytes, or a character that is not allowed.",
     "let the account write in the folder (vsftpd: write_enable=YES), or choose another name"},

    {KIND::UTILITY, "reply=ERROR", "The COM utility refused.",
     "Unknown KORVA_SERVER or KORVA_JOB, no license, no drive, or a copy that is not there.",
     "read its message= line; run the command of the line COM COMMAND by hand"},
    {KIND::UTILITY, "parse_com_answer: ERROR MESSAGE: [...]",
     "The reason that the COM utility gave, in its own words.", "See the text.",
     "follow the text; KORVA's own log has more"},
    {KIND::UTILITY, "Invalid reply format.",
     "The answer does not begin with reply=OK, or has nothing after it.",
     "Another program under the utility's name, or a utility that broke off.",
     "run the command of the line COM COMMAND by hand and look at what it prints"},
    {KIND::UTILITY, "COM answer not received.", "The COM utility printed nothing.",
     "It is missing, not executable, was killed, or complains on standard error, which the library "
     "does not read.",
     "run the command of the line COM COMMAND by hand, as the account of the database"},
    {KIND::UTILITY,
     "COM Interface command could not be executed.|The COM utility could not be run.",
     "The library found no utility to run; a backup or restore then always fails, a query returns "
     "17.",
     "/etc/korva2000.ini is missing or lacks SM_BIN_KORVA, or no process could be started.",
     "write SM_BIN_KORVA=FOLDER of olm_com_interface into /etc/korva2000.ini"},
    {KIND::UTILITY, "Unable to open [...] file.", "The INI file cannot be read.",
     "It does not exist, or this account may not read it.",
     "create /etc/korva2000.ini with mode 644 and the line SM_BIN_KORVA=FOLDER"},
    {KIND::UTILITY,
     "Command line of the COM utility is too long.|Command line too long, not run|Command too "
     "long: ...|INI line too long.|make_KORVA_authentication: Host name too long.",
     "A line is longer than its limit and was not used: 1,023 bytes for the utility, 2,045 for the "
     "server, 511 in the INI file, 127 for this host's name.",
     "Long space, object, job, folder or host names.", "shorten the names or the path"},
    {KIND::UTILITY,
     "The COM utility did not open a job.|The COM utility did not answer the query.|The COM "
     "utility did not answer the close of the job.",
     "Strict mode: without an answer there is no job to store into, no certain \"no match\", no "
     "closed job.",
     "No INI file, or the utility died or printed its complaint on standard error.",
     "run the command of the line COM COMMAND by hand; query the object, back up again if it is "
     "missing"},

    {KIND::MESSAGE,
     "olm_com_interface() call failed. Exiting.|qab_com() call failed. Exiting.|com_intf: "
     "failed.|qab_com (QAB_CLOSE_READ...) failed|qab_com (QAB_CLOSE_WRITE...) failed|xbsa_open() "
     "call failed. Exiting.|xbsa_connect() failed|Port negotiation "
     "failed.|make_KORVA_authentication() failed.|Problem while retriving data for KORVA SECURE "
     "AUTHENTICATION.",
     "A step of the call failed.", "The lines before it give the reason.",
     "explain the first failing line before it; close the job on the KORVA server if it stays "
     "open"},

    {KIND::UTILITY, "SMS has not returned saveset name. Using copy id for saveset name.",
     "The utility's answer names no saveset; the restore asks for the copy id instead.",
     "An answer without savesetname.",
     "nothing when RETR works; otherwise look at the utility's answer"},

    {KIND::REASON, "Connection refused", "Nothing listens at the server's address and port.",
     "The server is down, or host or port is wrong (KORVA's usual port is 11001, FTP's 21).",
     "start the server, or let its port through the firewall; check host and port with xbsactl "
     "check"},
    {KIND::REASON, "No route to host|Network is unreachable|Host is down",
     "The server's address cannot be reached.", "Network down, a missing route, or a firewall.",
     "ask the network's administrator; try ping and xbsactl check"},
    {KIND::REASON, "Connection timed out",
     "No answer came in time: to the connect, to the wait for the data connection (BSA_TIMEOUT), "
     "or to the probes on a silent connection.",
     "A firewall that drops packets, or a server that vanished. During the wait for the data "
     "connection: the server cannot connect back, or waits for a tape.",
     "open the firewall both ways; raise BSA_TIMEOUT where tapes are slow"},
    {KIND::REASON,
     "Connection reset by peer|Broken pipe|Software caused connection abort|Transport endpoint is "
     "not connected|closed the connection",
     "The other side closed the connection in the middle.",
     "The server gave up (disk full, time-out, crash), or a firewall cut an idle connection.",
     "read the closing reply in the trace or the server's log, and repeat"},
    {KIND::REASON, "no end within|no answer within",
     "The server or the COM utility did not answer in time.",
     "A tape that is not mounted, a slow look-up of this host's name, or a server that hangs.",
     "find out what the server waits for; --timeout gives an Informix session more time"},
    {KIND::REASON,
     "Too many open files|Cannot allocate memory|No buffer space available|Not enough memory for "
     "the transfer.|malloc() return NULL. Not enough space.|malloc() failed. break.",
     "The process may not open more files or connections, or got no memory.",
     "The limit of descriptors is too low for the database process, or the machine is short of "
     "memory.",
     "raise the limit (ulimit -n, LimitNOFILE) and restart the database; free memory, run fewer "
     "backups at once"},
    {KIND::REASON, "Address already in use|Cannot assign requested address|Invalid argument",
     "The address or port of the connection cannot be used.",
     "All ephemeral ports are taken, an address of this host is gone, or a port outside 1 to 65535 "
     "in BSA_SERVICE_HOST or in the utility's tape_server.",
     "widen net.ipv4.ip_local_port_range; correct the port"},
    {KIND::REASON, "Permission denied|Operation not permitted",
     "The system does not let this account do it.",
     "Rights of a file or folder, a local firewall, SELinux or AppArmor rule, or a broadcast "
     "address as server.",
     "check the rights, the rules and the address"},
    {KIND::REASON, "No space left on device|Disk quota exceeded",
     "The file system has no room: nothing more can be written there.",
     "A full disk or quota of the local file, the trace or the server's folder.",
     "make room, or name a file in another file system"},
    {KIND::REASON, "Read-only file system", "The file system does not accept changes.",
     "It is mounted read-only, perhaps after an error of its disk, or the service runs with a "
     "protected system.",
     "write somewhere else, or mount it for writing once the kernel's log shows no disk error"},
    {KIND::REASON, "No such file or directory|Not a directory|Is a directory|File name too long",
     "The path does not lead to a file of that kind.",
     "A misspelt path, a folder that is missing, or a name above 255 bytes.", "correct the path"},
    {KIND::REASON,
     "...Windows Sockets...|Directory not empty.|The virtual circuit was...|No more file "
     "descriptors are available|...Host not found...|Nonrecoverable errors: ...|Local server did "
     "not receive a response|An unexpected server failure occurred.",
     "Texts for numbers that only a program with Windows' numbering passes to SysErrorTxt.",
     "The library itself never fails with these.", "look at the program that calls"},
    {KIND::REASON, "Interrupted system call", "A signal interrupted the wait.",
     "The calling program uses signals while the library waits.", "repeat"},
    {KIND::REASON, "Bad file descriptor", "The connection is gone.",
     "A call after a failed one, or the calling program closed a descriptor that is not its own.",
     "look for the first failure before it"},

    {KIND::MESSAGE,
     "connect() failed.|recv() failed.|send() failed.|send() function failed to remote host. "
     "Exiting!|Data receiving failed.|close() of the data connection failed.|getsockname() "
     "failed.|bind() failed.|listen() failed.|Listener socket creation failed.|Data socket "
     "creation error. sock() failed.|Listening socket close failed.|setsockopt() failed for flag "
     "SO_KEEPALIVE. Value = ...",
     "A connection could not be opened, used or closed; the object counts as failed.",
     "The words before it are the system's reason.", "explain those words; repeat"},
    {KIND::MESSAGE,
     "gethostbyname() cannot find host.|gethostbyname() call failed or invalid IP for host: "
     "...|Host is unknown.",
     "The server's name has no IPv4 address.", "A misspelt host, or a name service that fails.",
     "try getent ahostsv4 NAME; put the name into /etc/hosts"},
    {KIND::MESSAGE,
     "No greeting, the control connection has ended.|The greeting is empty.|Reply String empty. "
     "Exiting.",
     "The server closed the connection before its greeting, or the greeting is empty.",
     "Access rules of the server (TCP wrappers, limits), or something else listens on the port.",
     "read the server's log; check that an FTP or KORVA server listens on this port"},
    {KIND::MESSAGE,
     "No reply to ..., the control connection has ended.|Failed to recieve message from remote "
     "server, exiting.|xbsa_open: stpc_recv() failed.",
     "The server closed the control connection instead of a reply.",
     "A server that hangs up on a refused login, or that crashed.",
     "read the server's log; the trace line before it shows the command"},
    {KIND::MESSAGE,
     "STOR failed. NEGATIVE reply: ...|RETR failed. NEGATIVE reply: ...|failed. NEGATIVE reply: "
     "...|NEGATIVE reply: ...|No reply to STOR, the control connection has ended.|No reply to "
     "RETR, the control connection has ended.|STOR ...: 4...|STOR ...: 5...",
     "The server refused STOR or RETR, or closed the control connection instead of a reply.",
     "The reply's number and text give the reason; without a reply the server's process ended.",
     "explain the number; without one read the server's log (vsftpd: set seccomp_sandbox=NO)"},
    {KIND::MESSAGE, "TRANSIENT or PERMANENT NEGATIVE reply: ...",
     "The server refused a command, or (in BSAEndData) the whole object.",
     "The reply's number and text give the reason.", "explain the number"},
    {KIND::MESSAGE,
     "No closing reply, the control connection has ended.|Unexpected closing reply: ...|Unexpected "
     "FTP code for last message|no 226",
     "The server did not confirm the object with 226: it is not stored (a restore: do not trust "
     "it).",
     "The server failed at the end: disk, tape, time-out.",
     "read the server's log, and repeat: without its 226 nothing counts as stored"},
    {KIND::MESSAGE, "The object was cut before its end.",
     "A restore was opened, or in strict mode the transaction ended, before BSAEndData: the object "
     "is not stored.",
     "The calling program's order of calls.",
     "end each object with BSAEndData before the next call of another kind, and repeat the backup"},
    {KIND::MESSAGE, "The COM utility refused, or its answer cannot be understood.",
     "The utility's answer is an error, or not an answer of its kind.",
     "The utility's own reason follows ERROR MESSAGE in the trace.",
     "look at the trace; run the traced command line by hand"},
    {KIND::MESSAGE, "Data connection from another address refused.",
     "Strict mode rejected a data connection that did not come from the server; the wait goes on.",
     "A server with several addresses, or an intruder.",
     "let the server connect from the address that it is reached at: strict mode turns others "
     "away"},
    {KIND::MESSAGE,
     "Data sending failed.|Data sending failed. Resending [...] times|BSASendData... 3",
     "Sending data failed and is tried again, five times a second apart; then BSASendData returns "
     "3.",
     "The server ran out of space or time or crashed, or network and firewall cut the connection.",
     "read the server's closing reply, which BSAEndData traces, and back up again"},
    {KIND::MESSAGE, "A block of the object was rejected.",
     "Strict mode: a BSASendData returned 5, 6 or 22, so bytes are missing; BSAEndData returns 3.",
     "A wrong handle, a null block or buffer, or a send in a restore.",
     "look for the rejected call in the calling program, and store the object again"},
    {KIND::MESSAGE, "The server confirmed the object, but its data connection had been reset.",
     "Strict mode: the server has only part of the object; BSAEndData returns 3.",
     "A firewall or the server cut the connection at the end; some servers answer 226 all the "
     "same.",
     "store the object again; do not trust the server's copy"},
    {KIND::MESSAGE, "Control character in ... refused.",
     "A value with a line break or another control character is never sent.",
     "A faulty name or login, or a wrong answer of the utility.",
     "remove the character from the value"},
    {KIND::MESSAGE, "...() function failed with error code: ...|No account name for user ID: ...",
     "This host's address or name, or the account's name, could not be looked up for the login.",
     "The address has no name (no reverse entry), the name has no address, or the process runs "
     "under a number that has no account.",
     "add address and name to the name service or to /etc/hosts, and the account to the system"},
    {KIND::MESSAGE, "... container to small.|com_intf: Invalid input mode: [...].",
     "A program called an inner function with too little room or an unknown task.",
     "A fault of that program.", "give 4,096 bytes; use the tasks of xbsa_session.h"},
    {KIND::MESSAGE,
     "Value too long, cut to ... characters.|Value too long, cut.|get_COM_environment: Environment "
     "variable to long.",
     "A text was longer than its field and was cut, a KORVA variable ignored.",
     "A long name, path or answer; KORVA_SERVER and KORVA_TAPE_SERVER hold 127 bytes, KORVA_JOB "
     "and KORVA_POOL 255, KORVA_DRIVE and KORVA_COM_TIMEOUT 7.",
     "shorten it: a cut name is another name"},
    {KIND::MESSAGE,
     "Environment variable: [KORVA_SERVER] not found.|Environment variable: [KORVA_JOB] not found.",
     "A variable is missing that every Informix session needs.",
     "It is not set where the backup tool or the database server was started.",
     "export it there and restart the database server"},
    {KIND::MESSAGE, "... is not allowed: give ...",
     "BSAInit refused the session; nothing was sent.",
     "A unit (2M), a sign, a blank, a number out of its limits, or a range that ends before it "
     "begins.",
     "give what the message names, or unset the variable"},
    {KIND::MESSAGE, "No free port in KORVA_PORT_RANGE = ...", "Every port of the range is in use.",
     "More streams at once than the range has ports, or other programs that use them.",
     "widen KORVA_PORT_RANGE and the firewall's rule; reserve the range with "
     "net.ipv4.ip_local_reserved_ports"},
    {KIND::MESSAGE, "KORVA_RATE_LIMIT = ...: not limited, setsockopt() failed with error code: ...",
     "The system cannot limit a connection: the store runs as fast as it can.",
     "A system older than Linux 3.13, or a sandbox that forbids the option.",
     "limit the connection elsewhere (tc, the server), or unset KORVA_RATE_LIMIT"},
    {KIND::MESSAGE, "KORVA_SOCKET_BUFFER = ...: ... allows only ...",
     "The system allows a smaller buffer than the setting asks for; the transfer goes on with a "
     "buffer that grows by itself.",
     "The default of net.core.wmem_max and rmem_max is some 200 KiB.",
     "raise the named setting with sysctl, for good in /etc/sysctl.d"},

    {KIND::HARMLESS,
     "Environment variable: [...] not found.|Port ... is taken.|connect() - return EINTR "
     "waiting...|Invalid sKorva.iLastOp, Korva Server not contacted, ok",
     "An optional variable is not set, a port of KORVA_PORT_RANGE is in use and the next one is "
     "tried, a signal interrupted the connect, which goes on, or there is no job to close.",
     "", "nothing; only KORVA_SERVER and KORVA_JOB are needed"},
};
} // namespace

const std::vector<ROW> &Rows()
{
    static const std::vector<ROW> vecRows(std::begin(TABLE), std::end(TABLE));
    return vecRows;
}
} // namespace explain
