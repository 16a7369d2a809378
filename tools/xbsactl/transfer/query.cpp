#include <iomanip>
#include <iostream>

#include "transfer/parts.h"

namespace transfer
{
namespace
{
using COPIES = std::vector<BSA_ObjectDescriptor>;

std::string Json(const library::OBJECT &I_sWanted, const COPIES &I_vecCopies)
{
    base::JSON sCopies = base::JSON::array();
    for (const BSA_ObjectDescriptor &sCopy : I_vecCopies)
        sCopies.push_back({{"copy_id", sCopy.copyId.right},
                           {"space", library::Field(sCopy.objectName.objectSpaceName)},
                           {"name", library::Field(sCopy.objectName.pathName)}});
    return base::Dump({{"schema", SCHEMA},
                       {"query", {{"space", I_sWanted.strSpace}, {"name", I_sWanted.strName}}},
                       {"copies", sCopies}});
}

void PrintTable(const COPIES &I_vecCopies)
{
    std::cout << std::left << std::setw(12) << "COPY ID"
              << "OBJECT\n";
    for (const BSA_ObjectDescriptor &sCopy : I_vecCopies)
        std::cout << std::setw(12) << sCopy.copyId.right
                  << base::Printable(library::Field(sCopy.objectName.objectSpaceName) + "@" +
                                     library::Field(sCopy.objectName.pathName))
                  << '\n';
}
} // namespace

void CheckQuery(const base::CONNECTION &I_sConnection, OPTIONS &X_sOptions)
{
    if (!I_sConnection.bInformix)
        throw base::USAGE_ERROR("query needs --informix: an FTP server keeps no catalogue");
    if (X_sOptions.sObject.strName.empty()) X_sOptions.sObject.strName = "%";
    if (X_sOptions.sObject.strSpace.empty()) X_sOptions.sObject.strSpace = "%";
}

void Query(const base::CONNECTION &I_sConnection, const OPTIONS &I_sOptions)
{
    library::CSession sSession(I_sConnection);
    const COPIES vecCopies = sSession.Copies(I_sOptions.sObject);
    sSession.Close();
    if (I_sOptions.bJson) std::cout << Json(I_sOptions.sObject, vecCopies) << '\n';
    else if (!vecCopies.empty()) PrintTable(vecCopies);
    if (vecCopies.empty()) throw base::FAILURE("no match", base::EXIT_NO_MATCH);
}
} // namespace transfer
