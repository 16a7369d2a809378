// The next step for what a server or the library says, in plain words.
#ifndef XBSACTL_CHECK_ADVICE_H
#define XBSACTL_CHECK_ADVICE_H

#include <string>

constexpr const char *ADVICE_LINES =
    "switch the banner off, the library reads one line only (Pure-FTPd: no banner file; ProFTPD: "
    "DisplayConnect off; vsftpd: no banner_file)";
constexpr const char *ADVICE_125 =
    "use a server, or a setting of it, that connects at STOR and answers 150: the library refuses "
    "125";
constexpr const char *ADVICE_LOGIN =
    "correct --user or the password (XBSA_PASSWORD, --password-file), or let the account log in";
constexpr const char *ADVICE_CWD =
    "make the folder on the server and let the account enter it, or name another one with --path";
constexpr const char *ADVICE_PORT =
    "allow active mode on the server (vsftpd: port_enable=YES); the library knows no other";
constexpr const char *ADVICE_WRITE =
    "let the account write and overwrite in the folder, and look for a full disk or quota (vsftpd: "
    "write_enable=YES; ProFTPD: AllowOverwrite on)";
constexpr const char *ADVICE_END =
    "read the server's log: without its 226 nothing counts as stored";

constexpr const char *ADVICE_SERVER_LOG = "look at the server and its log: it should have answered";
constexpr const char *ADVICE_SANDBOX = " (vsftpd: seccomp_sandbox=NO)";
constexpr const char *ADVICE_KORVA =
    "KORVA's server refused this host or account: enter it in the server's list";

// What to open so that the server can connect back.
std::string advice_Firewall();

// For a login that was refused with this reply.
std::string advice_Login(const std::string &I_strReply, bool I_bInformix);

// For a failure of the library, by what its text says.
std::string advice_For(const std::string &I_strText);

#endif
