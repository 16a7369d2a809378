#include "base/json.h"

namespace base
{
std::string Dump(const JSON &I_sJson)
{
    return I_sJson.dump(2, ' ', true, JSON::error_handler_t::replace);
}

std::string JsonQuoted(const std::string &I_strText)
{
    return JSON(I_strText).dump(-1, ' ', false, JSON::error_handler_t::replace);
}
} // namespace base
