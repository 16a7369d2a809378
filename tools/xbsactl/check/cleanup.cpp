#include "check/cleanup.h"

#include <algorithm>

#include "base/base.h"
#include "check/ftp.h"

namespace
{
void LogIn(CFtp &I_sFtp, const base::CONNECTION &I_sConnection, const sockaddr_in &I_sServer)
{
    I_sFtp.Connect(I_sServer);
    I_sFtp.Read();
    for (const std::string &strLine :
         {"USER " + I_sConnection.strUser, "PASS " + I_sConnection.strPassword,
          "CWD " + I_sConnection.strPath})
        I_sFtp.Command(strLine); // what was refused shows when nothing is deleted
}

std::string Joined(const std::vector<std::string> &I_vecTexts)
{
    std::string strText;
    for (const std::string &strEach : I_vecTexts)
        strText += (strText.empty() ? "" : ", ") + strEach;
    return strText;
}
} // namespace

void cleanup_Objects(CReport &I_sReport, const base::CONNECTION &I_sConnection,
                     const sockaddr_in &I_sServer, std::chrono::milliseconds I_sBound,
                     const std::vector<std::string> &I_vecNames)
{
    if (I_vecNames.empty()) return;
    std::vector<std::string> vecLeft = I_vecNames;
    std::string strWhy;
    try
    {
        CFtp sFtp(I_sBound);
        LogIn(sFtp, I_sConnection, I_sServer);
        for (const std::string &strName : I_vecNames)
        {
            const REPLY sReply = sFtp.Command("DELE " + strName);
            if (sReply.IsPositive())
                vecLeft.erase(std::find(vecLeft.begin(), vecLeft.end(), strName));
            else strWhy = sReply.Text();
        }
        sFtp.Command("QUIT");
    } catch (const base::FAILURE &sError)
    {
        strWhy = sError.what();
    }
    if (vecLeft.empty())
        return I_sReport.Ok("cleanup", std::to_string(I_vecNames.size()) + " objects removed");
    I_sReport.Warn("cleanup",
                   "left on the server, if they are there: " + Joined(vecLeft) + " (" +
                       I_sReport.Foreign(strWhy) + ")",
                   "remove them by hand; for the next time, let the account delete");
}

void cleanup_Copies(CReport &I_sReport, const std::vector<std::string> &I_vecCopies)
{
    if (I_vecCopies.empty()) return;
    I_sReport.Warn("cleanup", "left on the server: copy id " + Joined(I_vecCopies),
                   "have them removed on the KORVA server: a client cannot");
}
