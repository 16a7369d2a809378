#include "check/roundtrip.h"

#include <dlfcn.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <functional>
#include <random>

#include "base/base.h"
#include "explain/explain.h"
#include "library/library.h"
#include "xbsa_session.h"

namespace
{
using CLOCK = std::chrono::steady_clock;

constexpr const char *SPACE = "xbsactl"; // of an object in Informix mode
constexpr size_t SIZE = 1 << 20;         // bytes of an object
constexpr const char *STORE_STEP = "library.store";
constexpr const char *RESTORE_STEP = "library.restore";
constexpr const char *COMPARE_STEP = "library.compare";
constexpr const char *PAIR_STEP = "library.two_at_once";

long Since(CLOCK::time_point I_sStart)
{
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(CLOCK::now() - I_sStart).count());
}

// Every byte value, and no two objects alike.
std::string Content()
{
    std::mt19937 sRandom(static_cast<unsigned>(getpid()));
    std::string strData(SIZE, '\0');
    for (char &cByte : strData) cByte = static_cast<char>(sRandom());
    return strData;
}

void Store(library::CSession &I_sSession, std::string &I_strData)
{
    for (size_t uAt = 0; uAt < I_strData.size(); uAt += library::BLOCK_SIZE)
        I_sSession.Send(&I_strData[uAt], std::min(library::BLOCK_SIZE, I_strData.size() - uAt));
    I_sSession.EndData();
}

// Reads to the end, but keeps no more than can be right.
std::string Restore(library::CSession &I_sSession)
{
    std::string strData;
    std::vector<char> vecBlock(library::BLOCK_SIZE);
    size_t uLength = library::BLOCK_SIZE;
    while (uLength == library::BLOCK_SIZE)
    {
        uLength = I_sSession.Receive(vecBlock.data());
        if (strData.size() <= SIZE) strData.append(vecBlock.data(), uLength);
    }
    I_sSession.EndData();
    return strData;
}

// Empty when both are the same.
std::string Difference(const std::string &I_strStored, const std::string &I_strRestored)
{
    if (I_strStored == I_strRestored) return "";
    const auto sAt = std::mismatch(I_strStored.begin(), I_strStored.end(), I_strRestored.begin(),
                                   I_strRestored.end());
    return std::to_string(I_strStored.size()) + " bytes stored, " +
           (I_strRestored.size() > SIZE ? "more" : std::to_string(I_strRestored.size())) +
           " restored, different from byte " + std::to_string(sAt.first - I_strStored.begin());
}

// Where the utility sent the session, from the record that the library exports.
std::string NamedHost(const base::CONNECTION &I_sConnection)
{
    void *vpLibrary =
        dlopen(library::Path(I_sConnection.strLibrary).c_str(), RTLD_NOW | RTLD_NOLOAD);
    const auto *spGlobal =
        vpLibrary != nullptr ? static_cast<const _sGlobal *>(dlsym(vpLibrary, "sGlobal")) : nullptr;
    if (spGlobal == nullptr) return "";
    const _sSMS &sSMS = spGlobal->sObject.sSMS;
    const std::string strHost = library::Field(sSMS.szHostName);
    const bool bPort = sSMS.iPort >= 1 && sSMS.iPort <= 65535;
    return strHost.empty() || !bPort ? "" : strHost + ":" + std::to_string(sSMS.iPort);
}

// The whole way of one object. I_fpMeet runs while the transfer is open.
void Go(const base::CONNECTION &I_sConnection, const library::OBJECT &I_sObject,
        const std::function<void()> &I_fpMeet, RESULT &I_sResult)
{
    std::string strData = Content();
    CLOCK::time_point sStart = CLOCK::now();
    library::CSession sSession(I_sConnection);
    BSA_ObjectDescriptor sObject = library::Descriptor(I_sConnection, I_sObject);
    I_sResult["begun"]; // a STOR that fails may leave an empty object
    sSession.Create(sObject);
    if (I_sConnection.bInformix) I_sResult["copy"] = std::to_string(sObject.copyId.right);
    I_fpMeet();
    Store(sSession, strData);
    I_sResult["store_ms"] = std::to_string(Since(sStart));

    sStart = CLOCK::now();
    sSession.Next();
    library::OBJECT sWanted = I_sObject;
    sWanted.uCopyId = sObject.copyId.right;
    BSA_ObjectDescriptor sStored = library::Descriptor(I_sConnection, sWanted);
    sSession.Get(sStored);
    const std::string strRestored = Restore(sSession);
    sSession.Close();
    I_sResult["restore_ms"] = std::to_string(Since(sStart));
    I_sResult["difference"] = Difference(strData, strRestored);
}

// What was reached is told after a failure, too. Runs in a child.
RESULT RoundTrip(const base::CONNECTION &I_sConnection, const std::string &I_strName,
                 const std::function<void()> &I_fpMeet)
{
    RESULT sResult;
    try
    {
        Go(I_sConnection, {SPACE, I_strName}, I_fpMeet, sResult);
    } catch (const base::FAILURE &sError)
    {
        sResult["error"] = sError.what();
    }
    if (I_sConnection.bInformix) sResult["host"] = NamedHost(I_sConnection);
    return sResult;
}

// Returns when the other process has come as far, or has ended.
void Meet(int I_iSocket, std::chrono::milliseconds I_sTime)
{
    char cByte = 'x';
    pollfd sPoll{I_iSocket, POLLIN, 0};
    if (send(I_iSocket, &cByte, 1, MSG_NOSIGNAL) != 1) return;
    if (poll(&sPoll, 1, static_cast<int>(I_sTime.count())) == 0)
        throw base::FAILURE("the other session did not open while this one was open");
}

std::string Rate(const std::string &I_strMilliseconds)
{
    return std::to_string(SIZE) + " bytes in " + I_strMilliseconds + " ms";
}
} // namespace

CRoundTrips::CRoundTrips(CReport &I_sReport, const base::CONNECTION &I_sConnection,
                         const std::string &I_strName, std::chrono::milliseconds I_sDeadline)
    : sReport(I_sReport), sConnection(I_sConnection), strName(I_strName), sDeadline(I_sDeadline)
{
    sConnection.uTimeout = static_cast<unsigned>(I_sDeadline.count() / 1000);
}

void CRoundTrips::NotTried(const std::string &I_strWhy)
{
    for (const char *cpStep : {STORE_STEP, RESTORE_STEP, COMPARE_STEP, PAIR_STEP})
        sReport.NotTried(cpStep, I_strWhy);
}

void CRoundTrips::Fail(const char *cpStep, const std::string &I_strFound)
{
    const std::string strHint = explain::Hint(
        I_strFound, sConnection.bInformix ? explain::MODE::INFORMIX : explain::MODE::PLAIN);
    sReport.Fail(cpStep, sReport.Foreign(I_strFound),
                 strHint.empty() ? "look at the steps of the library: --trace 2 shows them"
                                 : strHint);
}

// A child that did not end in time leaves as an error, with its object perhaps on the server.
RESULT CRoundTrips::Collect(CChild &I_sChild, const std::string &I_strName)
{
    RESULT sResult;
    try
    {
        sResult = I_sChild.Wait(sDeadline + std::chrono::seconds(2)); // the library's wait first
    } catch (const base::FAILURE &sError)
    {
        sResult = {{"error", sError.what()}, {"begun", ""}};
    }
    if (sResult.count("begun") != 0) vecNames.push_back(I_strName);
    if (sResult.count("copy") != 0) vecCopies.push_back(sResult["copy"]);
    if (sResult.count("host") != 0) strHost = sResult["host"];
    return sResult;
}

bool CRoundTrips::Single()
{
    const std::string strObject = strName + "-1";
    CChild sChild([&] { return RoundTrip(sConnection, strObject, [] {}); });
    const RESULT sResult = Collect(sChild, strObject);
    if (sResult.count("store_ms") != 0)
        sReport.Add({STATUS::OK, STORE_STEP, Rate(sResult.at("store_ms")), "",
                     std::stol(sResult.at("store_ms"))});
    else Fail(STORE_STEP, sResult.at("error"));
    if (sResult.count("restore_ms") != 0)
        sReport.Add({STATUS::OK, RESTORE_STEP, Rate(sResult.at("restore_ms")), "",
                     std::stol(sResult.at("restore_ms"))});
    else if (sResult.count("store_ms") != 0) Fail(RESTORE_STEP, sResult.at("error"));
    else sReport.NotTried(RESTORE_STEP, "nothing is stored");
    if (sResult.count("difference") == 0)
    {
        sReport.NotTried(COMPARE_STEP, "nothing came back");
        return false;
    }
    lAlone = std::stol(sResult.at("store_ms")) + std::stol(sResult.at("restore_ms"));
    const std::string strDifference = sResult.at("difference");
    if (strDifference.empty()) sReport.Ok(COMPARE_STEP, "what was stored came back");
    else
        sReport.Fail(COMPARE_STEP, strDifference,
                     "trust no backup on this server: look for a full or broken disk, a conversion "
                     "of texts, or something on the way that changes data");
    return strDifference.empty();
}

void CRoundTrips::Pair()
{
    std::array<int, 2> aiPair{};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, aiPair.data()) == -1)
        throw base::SystemFailure("a pair of sockets");
    const auto fpStart = [this, &aiPair](size_t I_uOwn) {
        const std::string strObject = strName + (I_uOwn == 0 ? "-2" : "-3");
        return [this, strObject, &aiPair, I_uOwn] {
            close(aiPair[1 - I_uOwn]); // so that its end is seen when the other process ends
            return RoundTrip(sConnection, strObject,
                             [this, &aiPair, I_uOwn] { Meet(aiPair[I_uOwn], sDeadline); });
        };
    };
    CChild sFirst(fpStart(0));
    close(aiPair[0]);
    aiPair[0] = -1;
    CChild sSecond(fpStart(1));
    close(aiPair[1]);
    const RESULT sOne = Collect(sFirst, strName + "-2");
    const RESULT sOther = Collect(sSecond, strName + "-3");
    for (const RESULT &sResult : {sOne, sOther})
    {
        if (sResult.count("error") != 0)
            return sReport.Fail(PAIR_STEP, sReport.Foreign(sResult.at("error")),
                                "raise the server's limit of sessions, for all and for each "
                                "account and host: one alone works");
        const std::string strDifference = sResult.at("difference");
        if (!strDifference.empty())
            return sReport.Fail(PAIR_STEP, strDifference,
                                "trust no backup on this server: sessions at once disturb each "
                                "other");
    }
    sReport.Ok(PAIR_STEP,
               "both stored and restored; one alone took " + std::to_string(lAlone) + " ms");
}

void CRoundTrips::Run()
{
    if (Single()) Pair();
    else sReport.NotTried(PAIR_STEP, "one alone does not work");
}
