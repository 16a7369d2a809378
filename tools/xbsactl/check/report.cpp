#include "check/report.h"

#include <algorithm>
#include <cstdio>
#include <iostream>

#include "base/base.h"
#include "base/json.h"

namespace
{
constexpr size_t SHOWN = 300; // bytes of a foreign text: more is no help to a reader

const char *Word(STATUS I_eStatus)
{
    switch (I_eStatus)
    {
    case STATUS::OK:
        return "ok";
    case STATUS::WARN:
        return "warn";
    case STATUS::FAIL:
        return "FAIL";
    case STATUS::NOT_TRIED:
        break;
    }
    return "--";
}

const char *JsonName(STATUS I_eStatus)
{
    switch (I_eStatus)
    {
    case STATUS::OK:
        return "ok";
    case STATUS::WARN:
        return "warn";
    case STATUS::FAIL:
        return "fail";
    case STATUS::NOT_TRIED:
        break;
    }
    return "not_tried";
}

std::string Json(bool I_bInformix, const std::vector<FINDING> &I_vecFindings)
{
    base::JSON sAnswer = {{"schema", 1},
                          {"road", I_bInformix ? "informix" : "plain"},
                          {"ok", 0},
                          {"warn", 0},
                          {"fail", 0},
                          {"not_tried", 0},
                          {"steps", base::JSON::array()}};
    for (const FINDING &sFinding : I_vecFindings)
    {
        const char *cpStatus = JsonName(sFinding.eStatus);
        sAnswer[cpStatus] = sAnswer[cpStatus].get<int>() + 1;
        sAnswer["steps"].push_back({{"id", sFinding.strStep},
                                    {"status", cpStatus},
                                    {"found", sFinding.strFound},
                                    {"next", sFinding.strNext},
                                    {"milliseconds", sFinding.lMilliseconds}});
    }
    return base::Dump(sAnswer);
}

void PrintLine(const FINDING &I_sFinding)
{
    printf("%-5s %-26s %6ld ms  %s\n", Word(I_sFinding.eStatus), I_sFinding.strStep.c_str(),
           I_sFinding.lMilliseconds, I_sFinding.strFound.c_str());
    if (!I_sFinding.strNext.empty()) printf("      next: %s\n", I_sFinding.strNext.c_str());
    fflush(stdout);
}
} // namespace

CReport::CReport(const base::CONNECTION &I_sConnection, bool I_bJson)
    : strPassword(I_sConnection.strPassword), bJson(I_bJson), bInformix(I_sConnection.bInformix)
{
}

void CReport::Add(FINDING I_sFinding)
{
    const CLOCK::time_point sNow = CLOCK::now();
    if (I_sFinding.lMilliseconds < 0)
        I_sFinding.lMilliseconds = static_cast<long>(
            std::chrono::duration_cast<std::chrono::milliseconds>(sNow - sLast).count());
    sLast = sNow;
    I_sFinding.strFound =
        base::Printable(I_sFinding.strFound); // paths and variables are foreign, too
    I_sFinding.strNext = base::Printable(I_sFinding.strNext);
    if (!bJson) PrintLine(I_sFinding);
    vecFindings.push_back(std::move(I_sFinding));
}

void CReport::Ok(const std::string &I_strStep, const std::string &I_strFound)
{
    Add({STATUS::OK, I_strStep, I_strFound, ""});
}

void CReport::Warn(const std::string &I_strStep, const std::string &I_strFound,
                   const std::string &I_strNext)
{
    Add({STATUS::WARN, I_strStep, I_strFound, I_strNext});
}

void CReport::Fail(const std::string &I_strStep, const std::string &I_strFound,
                   const std::string &I_strNext)
{
    Add({STATUS::FAIL, I_strStep, I_strFound, I_strNext});
}

void CReport::NotTried(const std::string &I_strStep, const std::string &I_strWhy)
{
    Add({STATUS::NOT_TRIED, I_strStep, "not tried: " + I_strWhy, ""});
}

std::string CReport::Foreign(const std::string &I_strText) const
{
    return base::Printable(base::Masked(I_strText, strPassword).substr(0, SHOWN));
}

int CReport::Count(STATUS I_eStatus) const
{
    return static_cast<int>(
        std::count_if(vecFindings.begin(), vecFindings.end(), [I_eStatus](const FINDING &sFinding) {
            return sFinding.eStatus == I_eStatus;
        }));
}

int CReport::Finish() const
{
    if (bJson) std::cout << Json(bInformix, vecFindings) << '\n';
    else
        printf("%d ok, %d warn, %d FAIL, %d not tried\n", Count(STATUS::OK), Count(STATUS::WARN),
               Count(STATUS::FAIL), Count(STATUS::NOT_TRIED));
    return Count(STATUS::FAIL) == 0 ? base::EXIT_DONE : base::EXIT_FAILED;
}
