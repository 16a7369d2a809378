#include "query.h"

#include <iomanip>
#include <iostream>
#include <nlohmann/json.hpp>

#include "errors.h"
#include "session.h"

namespace
{
using COPIES = std::vector<BSA_ObjectDescriptor>;
using JSON = nlohmann::ordered_json;

// docs/xbsactl.md describes the text: fields may be added, none may change.
void PrintJson(const SETTINGS &I_sSettings, const COPIES &I_vecCopies)
{
    JSON sCopies = JSON::array();
    for (const BSA_ObjectDescriptor &sCopy : I_vecCopies)
        sCopies.push_back({{"copy_id", sCopy.copyId.right},
                           {"space", session_Field(sCopy.objectName.objectSpaceName)},
                           {"name", session_Field(sCopy.objectName.pathName)}});
    const JSON sAnswer = {
        {"schema", 1},
        {"query", {{"space", I_sSettings.strSpace}, {"name", I_sSettings.strName}}},
        {"copies", sCopies}};
    // Names are bytes: what is no UTF-8 is replaced rather than refused.
    std::cout << sAnswer.dump(2, ' ', false, JSON::error_handler_t::replace) << '\n';
}

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
    if (I_sSettings.bJson) PrintJson(I_sSettings, vecCopies);
    else if (!vecCopies.empty()) PrintTable(vecCopies);
    if (vecCopies.empty()) throw FAILURE("no match");
}
