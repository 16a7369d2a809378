#include "check/resolve.h"

#include <arpa/inet.h>
#include <netdb.h>

#include <array>

#include "base/base.h"
#include "check/child.h"
#include "check/ftp.h"

namespace
{
RESULT Describe(const addrinfo &I_sFirst)
{
    const auto *spAddress = reinterpret_cast<const sockaddr_in *>(I_sFirst.ai_addr);
    RESULT sAnswer = {{"address", ftp_Text(spAddress->sin_addr)}, {"reverse", ""}};
    size_t uCount = 0;
    for (const addrinfo *spEach = &I_sFirst; spEach != nullptr; spEach = spEach->ai_next) uCount++;
    sAnswer["count"] = std::to_string(uCount);
    std::array<char, NI_MAXHOST> szName{};
    if (getnameinfo(I_sFirst.ai_addr, I_sFirst.ai_addrlen, szName.data(), szName.size(), nullptr, 0,
                    NI_NAMEREQD) == 0)
        sAnswer["reverse"] = szName.data();
    return sAnswer;
}

RESULT Resolve(const std::string &I_strHost)
{
    addrinfo sHints{};
    sHints.ai_family = AF_INET;
    sHints.ai_socktype = SOCK_STREAM;
    addrinfo *spFound = nullptr;
    const int iError = getaddrinfo(I_strHost.c_str(), nullptr, &sHints, &spFound);
    if (iError != 0 || spFound == nullptr) throw base::FAILURE(gai_strerror(iError));
    return Describe(*spFound); // the process ends: nothing is freed
}
} // namespace

RESOLVED resolve_Host(const std::string &I_strHost, std::chrono::milliseconds I_sBound)
{
    const RESULT sAnswer = CChild([&I_strHost] { return Resolve(I_strHost); }).Wait(I_sBound);
    RESOLVED sResolved;
    inet_pton(AF_INET, sAnswer.at("address").c_str(), &sResolved.sAddress);
    sResolved.uAddresses = std::stoul(sAnswer.at("count"));
    sResolved.strReverse = sAnswer.at("reverse");
    return sResolved;
}
