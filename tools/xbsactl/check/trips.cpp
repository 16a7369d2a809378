#include "check/trips.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <random>

#include "check/advice.h"
#include "library/library.h"

namespace check
{
namespace
{
using CLOCK = std::chrono::steady_clock;

constexpr size_t SIZE = 1 << 20; // bytes of an object
constexpr const char *STORE_STEP = "library.store";
constexpr const char *RESTORE_STEP = "library.restore";
constexpr const char *COMPARE_STEP = "library.compare";
constexpr const char *PAIR_STEP = "library.two_at_once";

std::string Since(CLOCK::time_point I_sStart)
{
    return std::to_string(
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

void Store(library::CSession &X_sSession, std::string &I_strData)
{
    for (size_t uAt = 0; uAt < I_strData.size(); uAt += library::BLOCK_SIZE)
        X_sSession.Send(&I_strData[uAt], std::min(library::BLOCK_SIZE, I_strData.size() - uAt));
    X_sSession.EndData();
}

// Reads to the end, but keeps no more than can be right.
std::string Restore(library::CSession &X_sSession)
{
    std::string strData;
    std::vector<char> vecBlock(library::BLOCK_SIZE);
    size_t uLength = library::BLOCK_SIZE;
    while (uLength == library::BLOCK_SIZE)
    {
        uLength = X_sSession.Receive(vecBlock.data());
        if (strData.size() <= SIZE) strData.append(vecBlock.data(), uLength);
    }
    X_sSession.EndData();
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

// The whole way of one object. I_fpMeet runs while the transfer is open.
void Go(const base::CONNECTION &I_sConnection, const std::string &I_strName,
        library::CSession &X_sSession, const SAY &I_fpSay, const std::function<void()> &I_fpMeet)
{
    library::OBJECT sName{"xbsactl", I_strName, 0};
    BSA_ObjectDescriptor sObject = library::Descriptor(I_sConnection, sName);
    std::string strData = Content();
    CLOCK::time_point sStart = CLOCK::now();
    X_sSession.Create(sObject);
    sName.uCopyId = sObject.copyId.right;
    if (I_sConnection.bInformix) I_fpSay("copy", std::to_string(sName.uCopyId));
    I_fpMeet();
    Store(X_sSession, strData);
    I_fpSay("stored", Since(sStart));

    sStart = CLOCK::now();
    X_sSession.Next();
    BSA_ObjectDescriptor sStored = library::Descriptor(I_sConnection, sName);
    X_sSession.Get(sStored);
    const std::string strRestored = Restore(X_sSession);
    X_sSession.Close();
    I_fpSay("restored", Since(sStart));
    I_fpSay("difference", Difference(strData, strRestored));
}

// In a child. Whatever fails in the library, the child comes to its end.
void RoundTrip(const base::CONNECTION &I_sConnection, const std::string &I_strName,
               const library::LISTENER &I_fpListener, const SAY &I_fpSay,
               const std::function<void()> &I_fpMeet)
{
    try
    {
        library::CSession sSession(I_sConnection, I_fpListener);
        I_fpSay("begun", ""); // a STOR that fails may leave an empty object
        Go(I_sConnection, I_strName, sSession, I_fpSay, I_fpMeet);
    } catch (const base::FAILURE &sError)
    {
        I_fpSay("error", sError.what());
    }
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

// What went wrong, of the library or with its process; empty for nothing.
std::string FailureOf(const OUTCOME &I_sOutcome)
{
    return I_sOutcome.strFailure.empty() ? I_sOutcome.Value("error") : I_sOutcome.strFailure;
}
} // namespace

CTrips::CTrips(CReport &X_sReport, const base::CONNECTION &I_sConnection,
               const std::string &I_strName, std::chrono::milliseconds I_sSilence)
    : sReport(X_sReport), sConnection(I_sConnection), strName(I_strName), sSilence(I_sSilence)
{
    sConnection.uTimeout = static_cast<unsigned>(I_sSilence.count() / 1000);
}

void CTrips::NotTried(const std::string &I_strWhy)
{
    sReport.NotTried({STORE_STEP, RESTORE_STEP, COMPARE_STEP, PAIR_STEP}, I_strWhy);
}

OUTCOME CTrips::Alone()
{
    CChild sChild([this](const SAY &I_fpSay) {
        const auto fpListener = [&I_fpSay](const std::string &I_strLine) {
            I_fpSay("trace", I_strLine);
        };
        RoundTrip(sConnection, AloneName(), fpListener, I_fpSay, [] {});
    });
    return sChild.Wait(sSilence + std::chrono::seconds(2)); // the library's wait first
}

void CTrips::Report(const OUTCOME &I_sAlone)
{
    const auto fpAdd = [&](const char *cpStep, const char *cpEvent) {
        const EVENT *spEvent = I_sAlone.Find(cpEvent);
        const std::string strFailure = FailureOf(I_sAlone);
        if (spEvent == nullptr)
            return sReport.Add(cpStep, Fail(sReport.Foreign(strFailure), advice_For(strFailure)));
        const long lTime = std::stol(spEvent->strValue);
        lAlone += lTime;
        return sReport.Add(cpStep, {STATUS::OK,
                                    std::to_string(SIZE) + " bytes in " + spEvent->strValue + " ms",
                                    "", lTime, ""});
    };
    if (!fpAdd(STORE_STEP, "stored"))
        return sReport.NotTried({RESTORE_STEP, COMPARE_STEP, PAIR_STEP}, "nothing is stored");
    if (!fpAdd(RESTORE_STEP, "restored"))
        return sReport.NotTried({COMPARE_STEP, PAIR_STEP}, "nothing came back");
    if (ReportCompared(I_sAlone.Value("difference"))) Pair();
    else sReport.NotTried({PAIR_STEP}, "one alone does not work");
}

bool CTrips::ReportCompared(const std::string &I_strDifference)
{
    if (I_strDifference.empty()) return sReport.Add(COMPARE_STEP, Ok("what was stored came back"));
    return sReport.Add(
        COMPARE_STEP,
        Fail(I_strDifference,
             "trust no backup on this server: look for a full or broken disk, a conversion of "
             "texts, or something on the way that changes data"));
}

// A child that did not end in time leaves its object on the server, perhaps.
OUTCOME CTrips::Collect(CChild &X_sChild, const std::string &I_strName)
{
    OUTCOME sOutcome = X_sChild.Wait(2 * sSilence);
    const std::string strCopy = sOutcome.Value("copy");
    if (!sConnection.bInformix && sOutcome.Find("begun") != nullptr) vecLeft.push_back(I_strName);
    if (!strCopy.empty()) vecLeft.push_back(strCopy);
    return sOutcome;
}

void CTrips::Pair()
{
    std::array<int, 2> aiPair{};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, aiPair.data()) == -1)
        throw base::SystemFailure("a pair of sockets");
    base::CDescriptor sFirstEnd(aiPair[0]);
    base::CDescriptor sSecondEnd(aiPair[1]);
    const auto fpWork = [this](const std::string &I_strName, base::CDescriptor &X_sOwn,
                               base::CDescriptor &X_sOther) {
        return [this, I_strName, &X_sOwn, &X_sOther](const SAY &I_fpSay) {
            X_sOther = base::CDescriptor(); // so that its end is seen when the other process ends
            RoundTrip(sConnection, I_strName, {}, I_fpSay,
                      [this, &X_sOwn] { Meet(X_sOwn.Get(), sSilence); });
        };
    };
    CChild sFirst(fpWork(strName + "-2", sFirstEnd, sSecondEnd));
    sFirstEnd = base::CDescriptor();
    CChild sSecond(fpWork(strName + "-3", sSecondEnd, sFirstEnd));
    sSecondEnd = base::CDescriptor();
    const OUTCOME sOne = Collect(sFirst, strName + "-2");
    sReport.Add(PAIR_STEP, JudgePair({sOne, Collect(sSecond, strName + "-3")}));
}

FINDING CTrips::JudgePair(const std::vector<OUTCOME> &I_vecOutcomes)
{
    for (const OUTCOME &sOutcome : I_vecOutcomes)
    {
        if (!FailureOf(sOutcome).empty())
            return Fail(sReport.Foreign(FailureOf(sOutcome)),
                        "raise the server's limit of sessions, for all and for each account and "
                        "host: one alone works");
        if (!sOutcome.Value("difference").empty())
            return Fail(sOutcome.Value("difference"),
                        "trust no backup on this server: sessions at once disturb each other");
    }
    return Ok("both stored and restored; one alone took " + std::to_string(lAlone) + " ms");
}
} // namespace check
