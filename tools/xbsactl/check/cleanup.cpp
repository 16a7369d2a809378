#include <algorithm>

#include "check/ftp.h"
#include "check/steps.h"

namespace check
{
namespace
{
std::string Joined(const std::vector<std::string> &I_vecTexts)
{
    std::string strText;
    for (const std::string &strEach : I_vecTexts)
        strText += (strText.empty() ? "" : ", ") + strEach;
    return strText;
}

// Takes the names that are gone out of the list. Returns why the others are not.
std::string Delete(const base::CONNECTION &I_sConnection, const sockaddr_in &I_sServer,
                   std::chrono::milliseconds I_sBound, std::vector<std::string> &X_vecLeft)
{
    std::string strWhy;
    try
    {
        CFtp sFtp(I_sServer, I_sBound);
        sFtp.Read();
        for (const std::string &strLine :
             {"USER " + I_sConnection.strUser, "PASS " + I_sConnection.strPassword,
              "CWD " + I_sConnection.strPath})
            sFtp.Command(strLine); // what was refused shows when nothing is deleted
        for (const std::string &strName : std::vector<std::string>(X_vecLeft))
        {
            const REPLY sReply = sFtp.Command("DELE " + strName);
            if (sReply.IsPositive())
                X_vecLeft.erase(std::find(X_vecLeft.begin(), X_vecLeft.end(), strName));
            else strWhy = sReply.Text();
        }
        sFtp.Command("QUIT");
    } catch (const base::FAILURE &sError)
    {
        strWhy = sError.what();
    }
    return strWhy;
}
} // namespace

void CleanUp(CReport &X_sReport, const base::CONNECTION &I_sConnection,
             const sockaddr_in &I_sServer, std::chrono::milliseconds I_sBound,
             const std::vector<std::string> &I_vecLeft)
{
    if (I_vecLeft.empty()) return;
    FINDING sFinding = Warn("left on the server: copy id " + Joined(I_vecLeft),
                            "have them removed on the KORVA server: a client cannot");
    if (!I_sConnection.bInformix)
    {
        std::vector<std::string> vecLeft = I_vecLeft;
        const std::string strWhy = Delete(I_sConnection, I_sServer, I_sBound, vecLeft);
        sFinding = Warn("left on the server, if they are there: " + Joined(vecLeft) + " (" +
                            X_sReport.Foreign(strWhy) + ")",
                        "remove them by hand; for the next time, let the account delete");
        if (vecLeft.empty()) sFinding = Ok(std::to_string(I_vecLeft.size()) + " objects removed");
    }
    X_sReport.Add("cleanup", sFinding);
}
} // namespace check
