#include "check/advice.h"

#include <array>
#include <fstream>

namespace
{
std::string PortRange()
{
    std::ifstream sFile("/proc/sys/net/ipv4/ip_local_port_range");
    std::string strFirst;
    std::string strLast;
    if (!(sFile >> strFirst >> strLast)) return "the ephemeral ports";
    return "ports " + strFirst + " to " + strLast;
}

struct ADVICE
{
    const char *cpText; // in the failure
    const char *cpNext; // null: the firewall
};

constexpr std::array<ADVICE, 14> ADVICES = {{
    {"reply: 125", ADVICE_125},
    {"NEGATIVE reply: 2", ADVICE_LINES}, // one reply too many came before
    {"reply: 425", nullptr},
    {"accept()", nullptr},
    {"reply: 530", ADVICE_LOGIN},
    {"reply: 421", "raise the server's limit of sessions, for all and for each account and host"},
    {"PORT", ADVICE_PORT},
    {"reply: 550", ADVICE_WRITE},
    {"reply: 553", ADVICE_WRITE},
    {"reply: 45", ADVICE_WRITE},
    {"connect()", "start the server, or let its port through the firewall"},
    {"greeting", "look whether an FTP or KORVA server is what listens on this port"},
    {"closing reply", ADVICE_END},
    {"no answer within",
     "find out what the server waits for; --timeout gives an Informix session more time"},
}};
} // namespace

std::string advice_Firewall()
{
    return "let the server open TCP connections to this host, " + PortRange() +
           " (net.ipv4.ip_local_port_range), in every firewall between: helpers that would do it "
           "by themselves (nf_conntrack_ftp) are off by default in current kernels";
}

std::string advice_Login(const std::string &I_strReply, bool I_bInformix)
{
    for (const char *cpWord : {"TLS", "SSL", "ncrypt", "ecure"})
        if (I_strReply.find(cpWord) != std::string::npos)
            return "the server demands encryption, which the library does not have: let it take "
                   "plain sessions from this host, on a network that is trusted or in a tunnel";
    return I_bInformix ? ADVICE_KORVA : ADVICE_LOGIN;
}

std::string advice_For(const std::string &I_strText)
{
    for (const ADVICE &sAdvice : ADVICES)
        if (I_strText.find(sAdvice.cpText) != std::string::npos)
            return sAdvice.cpNext != nullptr ? sAdvice.cpNext : advice_Firewall();
    return "look at the steps of the library: --trace 2 shows them";
}
