// The journal reader of xbsactl: a good line at the end is found after anything, and the report of
// any journal is clean text.
#include "fuzz.h"

#include <iostream>
#include <sstream>

#include "base/base.h"
#include "base/json.h"
#include "report/report.h"

static const char *const JOURNAL_NAME = "/dev/null"; // it exists
static const std::string GOOD =
    R"({"schema":1,"time":"2026-11-26T01:15:00Z","pid":4711,"mode":"informix","direction":"store",)"
    R"("space":"fuzz","path":"good","copy_id":7,"server":"s:1","bytes":5,"blocks":1,"seconds":0.1,)"
    R"("result":0,"error":"","xxh128":"b5e9c1ad071b3e7fc779cfaa5e523818"})";

// What the report prints.
static std::string Printed(const report::OPTIONS &I_sOptions)
{
    std::ostringstream sText;
    std::streambuf *spBefore = std::cout.rdbuf(sText.rdbuf());
    const int iExit = report::Run(I_sOptions);
    std::cout.rdbuf(spBefore);
    CHECK(iExit >= 0 && iExit <= 2);
    return sText.str();
}

void fuzz_One(std::string &X_strBytes)
{
    const unsigned uSwitches = fuzz_Byte(X_strBytes);
    const bool bPacked = X_strBytes.starts_with("\x1f\x8b");
    report::OPTIONS sOptions;
    sOptions.vecJournals = {JOURNAL_NAME};
    sOptions.uMaxAge = uSwitches & 1;
    sOptions.uMinSize = uSwitches & 2;
    sOptions.bJson = (uSwitches & 4) != 0;
    sOptions.bNagios = (uSwitches & 8) != 0;
    sOptions.strActLog = (uSwitches & 16) != 0 ? "act" : "";
    if ((uSwitches & 32) != 0) sOptions.vecSpaces = {"fuzz", "none"};
    sWorld.mapFiles["act"] = "2026-11-26 01:15:00 4711  4710 Begin backup of good.\n";
    sWorld.mapFiles[JOURNAL_NAME] = bPacked ? X_strBytes : X_strBytes + GOOD;
    std::string strLast;
    const auto fpTake = [&](report::ENTRY &&sEntry) {
        CHECK(!sEntry.bGood || sEntry.strDigest.size() == 32);
        strLast = report::Name(sEntry);
    };
    try
    {
        report::ReadJournals({JOURNAL_NAME}, fpTake);
        CHECK(bPacked || strLast == "fuzz@good");
        const std::string strText = Printed(sOptions);
        CHECK(strText.ends_with('\n'));
        for (const char cByte : strText)
            CHECK(static_cast<unsigned char>(cByte) >= ' ' || cByte == '\n');
        CHECK(!sOptions.bJson || sOptions.bNagios || base::JSON::accept(strText));
    } catch (const base::FAILURE &)
    {
        CHECK(bPacked);
    }
}
