// Stores and restores objects through the library, each session in a separate process.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <deque>
#include <random>

#include "check/parts.h"
#include "library/library.h"

namespace check
{
namespace
{
constexpr size_t SIZE = 1 << 20;  // bytes of an object
constexpr long MOST_STREAMS = 32; // more would only take time

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
    const auto sAt = std::ranges::mismatch(I_strStored, I_strRestored);
    return Text(I_strStored.size(), " bytes stored, ",
                I_strRestored.size() > SIZE ? "more" : std::to_string(I_strRestored.size()),
                " restored, different from byte ", sAt.in1 - I_strStored.begin());
}

// Stores and restores one object. Its trace comes as events of the name "trace".
//   I_hGate  awaited while the transfer is open: the end of a pipe; -1: nothing is
void RoundTrip(const SESSIONS &I_sSessions, const std::string &I_strName, const SAY &I_fpSay,
               int I_hGate)
{
    base::CONNECTION sConnection = I_sSessions.sConnection;
    sConnection.uTimeout = static_cast<unsigned>(I_sSessions.sSilence.count() / 1000);
    library::CSession sSession(sConnection,
                               [&](const std::string &strLine) { I_fpSay("trace", strLine); });
    library::OBJECT sName{"xbsactl", I_strName, 0};
    BSA_ObjectDescriptor sObject = library::Descriptor(sConnection, sName);
    std::string strData = Content();
    I_fpSay("begun", "");
    sSession.Create(sObject);
    sName.uCopyId = sObject.copyId.right;
    I_fpSay("copy", std::to_string(sName.uCopyId));
    if (char cByte = '\0'; I_hGate != -1 && read(I_hGate, &cByte, 1) == -1)
        throw base::SystemFailure("creating a pipe");
    Store(sSession, strData);
    I_fpSay("stored", "");

    sSession.Next();
    BSA_ObjectDescriptor sStored = library::Descriptor(sConnection, sName);
    sSession.Get(sStored);
    const std::string strRestored = Restore(sSession);
    sSession.Close();
    I_fpSay("restored", "");
    I_fpSay("difference", Difference(strData, strRestored));
}

// The object of a session that has sent STOR.
void NoteLeft(SESSIONS &X_sSessions, const std::string &I_strName, const OUTCOME &I_sOutcome)
{
    std::string strCopy = ValueIn(I_sOutcome, "savesetname");
    strCopy = strCopy.empty() ? I_sOutcome.Value("copy") : strCopy.substr(0, strCopy.find('@'));
    const bool bInformix = X_sSessions.sConnection.bInformix;
    if (bInformix ? !strCopy.empty() : HasStored(X_sSessions, I_sOutcome))
        X_sSessions.vecLeft.push_back(bInformix ? strCopy : I_strName);
}

FINDING Judge(const CReport &I_sReport, const OUTCOME &I_sOutcome)
{
    const std::string strDifference = I_sOutcome.Value("difference");
    if (!I_sOutcome.strFailure.empty()) return Fail(I_sReport.Foreign(I_sOutcome.strFailure));
    return strDifference.empty() ? Ok("the restored data is identical") : Fail(strDifference);
}

// The other sessions stay open while the last one stores and restores.
FINDING Together(SESSIONS &X_sSessions, long I_lSessions, const std::string &I_strName)
{
    std::array<int, 2> aiGate{};
    if (pipe2(aiGate.data(), O_CLOEXEC) == -1) throw base::SystemFailure("creating a pipe");
    const base::CDescriptor sWaits(aiGate[0]);
    base::CDescriptor sGate(aiGate[1]); // closed: the sessions continue
    const auto sSilence = 2 * X_sSessions.sSilence;
    const auto fpName = [&](long lNumber) { return I_strName + std::to_string(lNumber); };
    std::deque<CChild> deqSessions;
    for (long lNumber = 0; lNumber < I_lSessions; lNumber++)
    {
        const bool bLast = lNumber + 1 == I_lSessions;
        deqSessions.emplace_back([&](const SAY &fpSay) {
            sGate = base::CDescriptor(); // only the parent's end holds the sessions back
            RoundTrip(X_sSessions, fpName(lNumber), fpSay, bLast ? -1 : sWaits.Get());
        });
        const OUTCOME &sOutcome = deqSessions.back().Wait(sSilence, bLast ? "" : "copy");
        if (!sOutcome.strFailure.empty()) break;
    }
    sGate = base::CDescriptor();
    FINDING sFinding = Ok(Text("all ", I_lSessions, " stored and restored"));
    for (long lNumber = 0; auto &sSession : deqSessions)
    {
        const OUTCOME &sOutcome = sSession.Wait(sSilence);
        NoteLeft(X_sSessions, fpName(lNumber++), sOutcome);
        const FINDING sOne = Judge(X_sSessions.sReport, sOutcome);
        if (sFinding.eStatus == STATUS::OK && sOne.eStatus != STATUS::OK) sFinding = sOne;
    }
    return sFinding;
}

FINDING Trip(const SESSIONS &I_sSessions, const OUTCOME &I_sAlone, const char *cpFrom,
             const char *cpTo)
{
    const EVENT *spFrom = I_sAlone.Find(cpFrom);
    const EVENT *spTo = I_sAlone.Find(cpTo);
    if (spFrom == nullptr || spTo == nullptr)
        return Fail(I_sSessions.sReport.Foreign(I_sAlone.strFailure));
    const long lTook = spTo->lMilliseconds - spFrom->lMilliseconds;
    return {STATUS::OK, Text(SIZE, " bytes in ", lTook, " ms"), "", lTook};
}
} // namespace

OUTCOME RunAlone(SESSIONS &X_sSessions)
{
    const std::string strName = X_sSessions.strName + "-1";
    const std::chrono::seconds sMore(2); // the library's own wait ends first
    OUTCOME sOutcome = RunChild(X_sSessions.sSilence + sMore, [&](const SAY &fpSay) {
        RoundTrip(X_sSessions, strName, fpSay, -1);
    });
    NoteLeft(X_sSessions, strName, sOutcome);
    return sOutcome;
}

std::string ServerIn(const OUTCOME &I_sAlone)
{
    std::istringstream sParts(ValueIn(I_sAlone, "tape_server"));
    std::string strHost;
    int iPort = 0;
    std::getline(sParts, strHost, ':') >> iPort;
    return !strHost.empty() && iPort >= 1 && iPort <= 65535 ? Text(strHost, ':', iPort) : "";
}

void ReportSessions(SESSIONS &X_sSessions, const OUTCOME &I_sAlone, const std::string &I_strWhy)
{
    const long lStreams = std::min(X_sSessions.lStreams, MOST_STREAMS);
    const std::string &strName = X_sSessions.strName;
    STEPS vecSteps = {
        {"library.store", [&] { return Trip(X_sSessions, I_sAlone, "begun", "stored"); }},
        {"library.restore", [&] { return Trip(X_sSessions, I_sAlone, "stored", "restored"); }},
        {"library.compare", [&] { return Judge(X_sSessions.sReport, I_sAlone); }},
        {"library.two_at_once", [&] { return Together(X_sSessions, 2, strName + "-2-"); }}};
    if (lStreams > 2)
        vecSteps.emplace_back("library.all_at_once",
                              [&] { return Together(X_sSessions, lStreams, strName + "-3-"); });
    X_sSessions.sReport.Climb(vecSteps, I_strWhy);
}
} // namespace check
