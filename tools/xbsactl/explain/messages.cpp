// The catalogue: the system's reasons, and the library's own messages.
#include "explain/catalogue.h"

#include <iterator>

namespace
{
constexpr CATALOGUE_ROW MESSAGES[] = {
    {ROW::REASON, NO_CODE, "Connection refused", "Nobody listens at the server's address and port.",
     "The server is down, or host or port is wrong (KORVA's usual port is 11001, FTP's 21).",
     "Start the server; check host and port with xbsactl check."},
    {ROW::REASON, NO_CODE,
     "No route to host|No route host.|Network is unreachable|Host is down|The network can't be "
     "reached from this host at this time.|The Windows Sockets implementation has detected that "
     "the network subsystem has failed.|underlying network subsystem is not ready for network "
     "communication.",
     "The server's address cannot be reached.", "Network down, a missing route, or a firewall.",
     "Ask the network's administrator; try ping and xbsactl check."},
    {ROW::REASON, NO_CODE,
     "Connection timed out|Attempt to connect timed out without establishing a connection.",
     "No answer came in time: to the connect, to the wait for the data connection (BSA_TIMEOUT), "
     "or "
     "to the probes on a silent connection.",
     "A firewall that drops packets, or a server that vanished. While waiting for the data "
     "connection: the server cannot connect back, or waits for a tape.",
     "Open the firewall both ways; raise BSA_TIMEOUT where tapes are slow."},
    {ROW::REASON, NO_CODE,
     "Connection reset by peer|Broken pipe|Software caused connection abort|Transport endpoint is "
     "not connected|The virtual circuit was reset by the remote side.|The virtual circuit was "
     "aborted due to timeout or other failure.|The connection must be reset because the Windows "
     "Sockets implementation dropped it.|The socket is not connected.|The socket has been shut "
     "down.",
     "The other side closed the connection in the middle.",
     "The server gave up (disk full, time-out, crash), or a firewall cut an idle connection.",
     "The cause is in the closing reply or the server's log. Repeat."},
    {ROW::REASON, NO_CODE,
     "Too many open files|No more file descriptors are available or the queue is empty upon entry "
     "to accept and there are no descriptors available.",
     "The process may open no more files or connections.",
     "The limit of descriptors is too low for the database process.",
     "Raise it (ulimit -n, LimitNOFILE) and restart the database."},
    {ROW::REASON, NO_CODE, "Cannot allocate memory|No buffer space available",
     "The system has no memory for it.", "The machine is short of memory.",
     "Free memory; run fewer backups at once."},
    {ROW::REASON, NO_CODE,
     "Address already in use|Cannot assign requested address|The specified address is already in "
     "use.|The specified address is not available from the local computer.",
     "No port or address for the connection.",
     "All ephemeral ports are taken, or an address of this host has gone.",
     "Widen net.ipv4.ip_local_port_range; look at the network set-up."},
    {ROW::REASON, NO_CODE,
     "Permission denied|Operation not permitted|Not owner.|The requested address is a broadcast "
     "address, but the appropriate flag was not set.",
     "The system does not let this account do it.",
     "A local firewall, SELinux or AppArmor rule, or a broadcast address as server.",
     "Check the rules and the address."},
    {ROW::REASON, NO_CODE,
     "Host is unknown.|Local server did not receive a response from an authoritative server.|An "
     "unexpected server failure occurred.|No address is available for the name specified in the "
     "server request.|Authoritative Answer Host not found.|Non-Authoritative Host not found, or "
     "SERVERFAIL.|Nonrecoverable errors: FORMERR, REFUSED, NOTIMP.|Valid name, no data record of "
     "requested type.",
     "A host's name could not be looked up.", "A wrong name, or a name service that fails.",
     "Try getent hosts NAME; put the name into /etc/hosts."},
    {ROW::REASON, NO_CODE, "Interrupted system call", "A signal interrupted the wait.",
     "The calling program uses signals while the library waits.", "Repeat."},
    {ROW::REASON, NO_CODE, "Invalid argument|Socket binding problem or invalid argument.",
     "A number is out of its range; at a connect: a port outside 1 to 65535.",
     "A wrong port in BSA_SERVICE_HOST or in the utility's tape_server.", "Put the port right."},
    {ROW::REASON, NO_CODE, "Bad file descriptor|Bad file number.|The descriptor is not a socket.",
     "The connection is not there any more.",
     "A call after a failed one, or the calling program closed a descriptor that is not its own.",
     "Look for the first failure before it."},
    {ROW::REASON, NO_CODE,
     "Incorrect argument.|The socket is marked as nonblocking.|A blocking Windows Sockets "
     "operation is in progress.|The asynchronous routine being canceled has already completed.|A "
     "destination address is required.|The socket is of type SOCK_DGRAM, and the datagram is "
     "larger than the maximum supported by the Windows Sockets implementation.|The specified "
     "protocol is the wrong type for this socket.|The option is unknown or unsupported.|The "
     "specified protocol is not supported.|The specified socket type is not supported in this "
     "address family.|The referenced socket is not a type that supports operation.|Protocol family "
     "not supported.|The specified address family is not supported by this protocol.|The socket is "
     "already connected.|Too many references: can't splice.|Too many levels of symbolic "
     "links.|File "
     "name too long.|Directory not empty.|The version of Windows Sockets support requested is not "
     "provided by this particular Windows Sockets implementation.|A successful Startup must occur "
     "before using this function.|No such process.|No such device or address.|Unknown error code",
     "Texts for numbers that only a program of Windows' numbering hands to SysErrorTxt.",
     "Not this library's own failures.", "Look at the program that calls."},
    {ROW::RETURN_CODE, NO_CODE, "BSA: unknown error code",
     "Never shown: an unknown number reads as success in the trace.", "-", "-"},

    {ROW::MESSAGE, NO_CODE, "connect() failed.|xbsa_connect() failed",
     "The control connection to the server could not be made; the call returns 3.",
     "The words in front of it are the system's reason.", "Explain those words."},
    {ROW::MESSAGE, NO_CODE,
     "gethostbyname() cannot find host.|gethostbyname() call failed or invalid IP for host: ...",
     "The server's name has no IPv4 address; the call returns 3.",
     "A misspelt host, or a name service that fails.", "Try getent ahostsv4 NAME."},
    {ROW::MESSAGE, NO_CODE, "setsockopt() failed for flag SO_KEEPALIVE. Value = ...",
     "The socket could not be prepared; the connect that follows decides.",
     "No socket could be made: the limit of descriptors.", "See Too many open files."},
    {ROW::MESSAGE, NO_CODE, "No greeting, the control connection has ended.",
     "The server closed the connection before it said a word; the call returns 3.",
     "Access rules of the server (TCP wrappers, limits), or something else listens at the port.",
     "Look at the server's log; check the port."},
    {ROW::MESSAGE, NO_CODE, "The greeting is empty.|Reply String empty. Exiting.",
     "The server's first line is empty; the call returns 3.", "It is no FTP or KORVA server.",
     "Check host and port."},
    {ROW::MESSAGE, NO_CODE,
     "No reply to ..., the control connection has ended.|Failed to recieve message from remote "
     "server, exiting.|xbsa_open: stpc_recv() failed.",
     "The server closed the control connection in place of a reply; the call returns 3.",
     "A server that hangs up on a refused login, or that crashed.",
     "The trace line before it shows the command; look at the server's log."},
    {ROW::MESSAGE, NO_CODE, "recv() failed.|stpc_recv() failed.",
     "Reading a reply failed; the call returns 3.", "The words in front are the system's reason.",
     "Explain those words."},
    {ROW::MESSAGE, NO_CODE,
     "send() failed.|send() function failed to remote host. Exiting!|Fail to send port command: "
     "..., send() failed.",
     "A command could not be sent; the call returns 3.",
     "The server closed the control connection before.", "Look at the reply before it."},
    {ROW::MESSAGE, NO_CODE, "TRANSIENT or PERMANENT NEGATIVE reply: ...",
     "The server refused a command, or (in BSAEndData) the whole object.",
     "The reply's number and text tell why.", "Explain the number."},
    {ROW::MESSAGE, NO_CODE, "failed. NEGATIVE reply: ...",
     "STOR or RETR was answered with something other than 150; the call returns 3.",
     "The reply's number and text tell why; 125 is refused too.", "Explain the number."},
    {ROW::MESSAGE, NO_CODE, "stpc_port: NEGATIVE reply: ...|NEGATIVE reply: ...",
     "PORT was answered with something other than 200; the call returns 3.",
     "Active mode is switched off at the server, or address translation changes our address.",
     "Allow active mode (vsftpd port_enable); avoid address translation."},
    {ROW::MESSAGE, NO_CODE,
     "No closing reply, the control connection has ended.|Unexpected closing reply: ...|Unexpected "
     "FTP code for last message",
     "The object was not confirmed with 226: it is not stored (a restore: do not trust it).",
     "The server failed at the end: disk, tape, time-out.", "Look at the server's log; repeat."},
    {ROW::MESSAGE, NO_CODE, "The object was cut before its end.",
     "A restore was opened, or in strict mode the transaction ended, before BSAEndData: the object "
     "is "
     "not stored.",
     "The calling program's order of calls.",
     "End each object with BSAEndData before the next call of another kind. Repeat the backup."},
    {ROW::MESSAGE, NO_CODE, "The COM utility refused, or its answer cannot be understood.",
     "The utility's answer is an error, or no answer of its kind; the call returns 3.",
     "The utility's own reason stands in the trace behind ERROR MESSAGE.",
     "Look at the trace; run the traced command line by hand."},
    {ROW::MESSAGE, NO_CODE, "accept() failed.",
     "The server's data connection did not come; the call returns 3.",
     "A firewall, BSA_TIMEOUT, or a server that ended the session.",
     "Let the server connect to this host; see the words in front."},
    {ROW::MESSAGE, NO_CODE, "Data connection from another address refused.",
     "Strict mode turned away a data connection that did not come from the server; the wait goes "
     "on.",
     "A server with several addresses, or somebody else trying.",
     "Make the server answer from the address that it is reached at."},
    {ROW::MESSAGE, NO_CODE,
     "getsockname() failed.|bind() failed.|listen() failed.|Listener socket creation failed.|Port "
     "negotiation failed.|Data socket creation error. sock() failed.|Listening socket close "
     "failed.",
     "The data connection could not be prepared on this side; the call returns 3.",
     "The line before it, or the words in front, give the reason: descriptors, ports, or a refused "
     "PORT.",
     "Explain those."},
    {ROW::MESSAGE, NO_CODE, "Data sending failed.|Data sending failed. Resending [...] times",
     "Sending data failed and is tried again, five times a second apart; then BSASendData returns "
     "3.",
     "The server closed the data connection: disk full, time-out, crash.",
     "The closing reply in the trace has the reason."},
    {ROW::MESSAGE, NO_CODE, "Data receiving failed.",
     "The data connection broke while an object was read; BSAGetData returns 3.",
     "The words in front of it are the system's reason.", "Explain those words; restore again."},
    {ROW::MESSAGE, NO_CODE, "close() of the data connection failed.",
     "Nobody can tell whether the server has the whole object; BSAEndData of a backup returns 3.",
     "The words in front of it are the system's reason.", "Explain those words; store again."},
    {ROW::MESSAGE, NO_CODE, "A block of the object was rejected.",
     "Strict mode: a BSASendData returned 5, 6 or 22, so bytes are missing; BSAEndData returns 3.",
     "A wrong handle, a null block or buffer, or a send in a restore.",
     "Look for the rejected call in the calling program; store the object again."},
    {ROW::MESSAGE, NO_CODE,
     "The server confirmed the object, but its data connection had been reset.",
     "Strict mode: the server has only part of the object; BSAEndData returns 3.",
     "A firewall or the server cut the connection at the end; some servers say 226 all the same.",
     "Store the object again; do not trust the server's copy."},
    {ROW::MESSAGE, NO_CODE, "Control character in ... refused.",
     "A value with a line break or another control character is never sent; the call returns 3.",
     "A faulty name or login, or a wrong answer of the utility.", "Clean the value."},
    {ROW::MESSAGE, NO_CODE, "Command too long: ...",
     "A command would not fit into 2,045 bytes; nothing is sent, the call returns 3.",
     "A name or folder that is too long.", "Shorten it."},
    {ROW::MESSAGE, NO_CODE,
     "Not enough memory for the transfer.|malloc() return NULL. Not enough space.|malloc() failed. "
     "break.",
     "The process got no memory; the call returns 3.", "The machine is short of memory.",
     "Free memory; run fewer backups at once."},
    {ROW::MESSAGE, NO_CODE,
     "Problem while retriving data for KORVA SECURE AUTHENTICATION.|make_KORVA_authentication() "
     "failed.",
     "The login identity (account and host) could not be made; the call returns 3.",
     "The line before it: no account, or no name for this host's address.", "Explain that line."},
    {ROW::MESSAGE, NO_CODE, "make_KORVA_authentication: No account name for user ID: ...",
     "The process runs under a number that has no account.",
     "A container or a name service without that account.", "Add the account."},
    {ROW::MESSAGE, NO_CODE,
     "make_KORVA_authentication: ...() function failed with error code: ...|() function failed "
     "with "
     "error code: ...",
     "This host's own address or name could not be looked up.",
     "The address has no name (no reverse entry), or the name has no address.",
     "Add address and name to the name service or to /etc/hosts."},
    {ROW::MESSAGE, NO_CODE, "make_KORVA_authentication: Host name too long.",
     "This host's name has more than 127 bytes and is not cut.", "-", "Use a shorter name."},
    {ROW::MESSAGE, NO_CODE,
     "... container to small.|Password container to small.|Username container to small.",
     "A program gave make_KORVA_authentication too little room.", "A fault of that program.",
     "Give 4,096 bytes."},
    {ROW::MESSAGE, NO_CODE, "Value too long, cut to ... characters.|Value too long, cut.",
     "A text was longer than its field and was cut.", "A very long name, path or answer.",
     "Shorten it; a cut name is another name."},
    {ROW::MESSAGE, NO_CODE, "get_COM_environment: Environment variable to long.",
     "A KORVA variable is longer than its field and was not taken.",
     "KORVA_SERVER and KORVA_TAPE_SERVER hold 127 bytes, KORVA_JOB and KORVA_POOL 255, "
     "KORVA_DRIVE and KORVA_COM_TIMEOUT 7.",
     "Shorten it."},
    {ROW::MESSAGE, NO_CODE,
     "Environment variable: [KORVA_SERVER] not found.|Environment variable: [KORVA_JOB] not found.",
     "A variable is missing that every Informix session needs.",
     "It is not set where the backup tool or the database server was started.",
     "Export it there and restart the database server."},
    {ROW::MESSAGE, NO_CODE, "xbsa_open() call failed. Exiting.",
     "The transfer was not opened; the call returns 3.", "The lines before it give the reason.",
     "Explain the first failing line before it."},
    {ROW::MESSAGE, NO_CODE,
     "Invalid calling sequence. Exiting.|There is no coresponding "
     "BsaBeginTxn() call. Exiting.",
     "The call returns 5: made already in this transaction, or too early.",
     "A fault of the calling program, often after a failure.", "Look for the failure before it."},
    {ROW::MESSAGE, NO_CODE, "Invalid Handle. Exiting.",
     "The call returns 6: the handle is not this process's.", "The program forked after BSAInit.",
     "Call BSAInit in the process that does the work."},
    {ROW::MESSAGE, NO_CODE,
     "bsaHandlePtr == NULL|objectOwnerPtr == NULL|objectDescriptorPtr is NULL. "
     "Exiting.|queryDescriptorPtr is NULL. Exiting.|Returninig "
     "BSA_RC_NULL_ARGUMENT.|ObjectName.objectSpaceName is empty|copyType == "
     "BSA_CopyType_ANY|BSAQueryServiceProvider: ... == NULL",
     "The call returns 22: an argument is null or lacks what it must have.",
     "A fault of the calling program.", "Mend that program."},
    {ROW::MESSAGE, NO_CODE, "BSAQueryServiceProvider: sizePtr too small. exiting.",
     "The call returns 7.", "The caller has room for less than 15 bytes.", "Give 16."},
    {ROW::MESSAGE, NO_CODE, "BSAQueryObject: No match.",
     "The call returns 17: no stored copy, or no answer of the utility.", "See BSA_RC_NO_MATCH.",
     "See whether the utility answered (lines com_intf before it)."},

    {ROW::HARMLESS, NO_CODE, "Environment variable: [...] not found.",
     "An optional variable is not set.", "-", "Nothing; KORVA_SERVER and KORVA_JOB are needed."},
    {ROW::HARMLESS, NO_CODE, "BSAGetNextQueryObject: No more data.",
     "The last match was handed out.", "-", "Nothing."},
    {ROW::HARMLESS, NO_CODE, "connect() - return EINTR waiting...",
     "A signal interrupted the connect, which goes on.", "-", "Nothing."},
    {ROW::HARMLESS, NO_CODE, "Invalid sKorva.iLastOp, Korva Server not contacted, ok",
     "BSAEndData without an object: there is no job to close.", "-", "Nothing."},
};
} // namespace

CATALOGUE_PART catalogue_Messages()
{
    return {std::begin(MESSAGES), std::end(MESSAGES)};
}
