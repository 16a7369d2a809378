// What the rooms share of JSON. Not in base.h, because its library takes long to compile.
#ifndef XBSACTL_JSON_H
#define XBSACTL_JSON_H

#include <nlohmann/json.hpp>
#include <string>

namespace base
{
using JSON = nlohmann::ordered_json;

// For a reader: bytes that are not UTF-8 are replaced rather than refused. All but ASCII is
// escaped, because a terminal interprets some of it.
inline std::string Dump(const JSON &I_sJson)
{
    return I_sJson.dump(2, ' ', true, JSON::error_handler_t::replace);
}
} // namespace base

#endif
