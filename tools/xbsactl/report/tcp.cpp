// How long ago a connection moved its last byte, from the kernel: neither the process nor its peer
// notices.
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <linux/sock_diag.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>

#include "base/base.h"
#include "report/live.h"

namespace report
{
namespace
{
constexpr uint32_t TCP_STATES =
    0xFFFFFFFFU & ~(1U << 6U | 1U << 10U); // neither TIME_WAIT nor LISTEN

bool Ask(int I_hKernel)
{
    struct
    {
        struct nlmsghdr sHead;
        struct inet_diag_req_v2 sBody;
    } sRequest{};
    sRequest.sHead.nlmsg_len = sizeof sRequest;
    sRequest.sHead.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    sRequest.sHead.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    sRequest.sBody.sdiag_family = AF_INET;
    sRequest.sBody.sdiag_protocol = IPPROTO_TCP;
    sRequest.sBody.idiag_ext = 1U << (INET_DIAG_INFO - 1U);
    sRequest.sBody.idiag_states = TCP_STATES;
    return I_hKernel != -1 && send(I_hKernel, &sRequest, sizeof sRequest, 0) == sizeof sRequest;
}

// An older kernel knows less, and its answer is shorter.
TRAFFIC Traffic(const void *vpInfo, size_t I_uLength)
{
    struct tcp_info sInfo = {};
    memcpy(&sInfo, vpInfo, std::min(I_uLength, sizeof sInfo));
    TRAFFIC sTraffic;
    sTraffic.dSinceSent = sInfo.tcpi_last_data_sent / 1e3;
    sTraffic.dSinceReceived = sInfo.tcpi_last_data_recv / 1e3;
    if (I_uLength >= offsetof(struct tcp_info, tcpi_segs_out))
        sTraffic.uMoved = sInfo.tcpi_bytes_acked + sInfo.tcpi_bytes_received;
    return sTraffic;
}

void TakeSocket(const struct nlmsghdr *spHead, std::map<uint64_t, TRAFFIC> &X_mapTraffic)
{
    const auto *spSocket = static_cast<const struct inet_diag_msg *>(NLMSG_DATA(spHead));
    int iLeft = static_cast<int>(NLMSG_PAYLOAD(spHead, sizeof *spSocket));
    const auto *spPart = reinterpret_cast<const struct rtattr *>(spSocket + 1);
    for (; RTA_OK(spPart, iLeft); spPart = RTA_NEXT(spPart, iLeft))
        if (spPart->rta_type == INET_DIAG_INFO)
            X_mapTraffic[spSocket->idiag_inode] = Traffic(RTA_DATA(spPart), RTA_PAYLOAD(spPart));
}

// Returns whether more follows.
bool TakePart(const char *cpPart, size_t I_uLength, std::map<uint64_t, TRAFFIC> &X_mapTraffic)
{
    int iLeft = static_cast<int>(I_uLength);
    const auto *spHead = reinterpret_cast<const struct nlmsghdr *>(cpPart);
    for (; iLeft > 0 && NLMSG_OK(spHead, static_cast<uint32_t>(iLeft));
         spHead = NLMSG_NEXT(spHead, iLeft))
    {
        if (spHead->nlmsg_type == NLMSG_DONE || spHead->nlmsg_type == NLMSG_ERROR) return false;
        TakeSocket(spHead, X_mapTraffic);
    }
    return true;
}
} // namespace

std::map<uint64_t, TRAFFIC> ReadTraffic()
{
    std::map<uint64_t, TRAFFIC> mapTraffic;
    const base::CDescriptor sKernel(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_SOCK_DIAG));
    if (!Ask(sKernel.Get())) return mapTraffic;
    alignas(struct nlmsghdr) std::array<char, 32768> caPart{};
    ssize_t iRead = 0;
    do iRead = recv(sKernel.Get(), caPart.data(), caPart.size(), 0);
    while (iRead > 0 && TakePart(caPart.data(), static_cast<size_t>(iRead), mapTraffic));
    return mapTraffic;
}
} // namespace report
