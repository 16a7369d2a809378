#include "transfer/query.h"

#include <iomanip>
#include <iostream>

#include "base/errors.h"
#include "base/json.h"
#include "library/session.h"

namespace
{
using COPIES = std::vector<BSA_ObjectDescriptor>;

void PrintTable(const COPIES &I_vecCopies)
{
    std::cout << std::left << std::setw(12) << "COPY ID"
              << "OBJECT\n";
    for (const BSA_ObjectDescriptor &sCopy : I_vecCopies)
        std::cout << std::setw(12) << sCopy.copyId.right
                  << Printable(session_Field(sCopy.objectName.objectSpaceName) + "@" +
                               session_Field(sCopy.objectName.pathName))
                  << '\n';
}
} // namespace

void query_Run(const SETTINGS &I_sSettings)
{
    CSession sSession(I_sSettings);
    BSA_QueryDescriptor sQuery = session_Query(I_sSettings);
    const COPIES vecCopies = sSession.Query(sQuery);
    sSession.Close();
    if (I_sSettings.bJson) std::cout << json_Copies(I_sSettings, vecCopies) << '\n';
    else if (!vecCopies.empty()) PrintTable(vecCopies);
    if (vecCopies.empty()) throw FAILURE("no match");
}
