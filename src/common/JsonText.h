#ifndef KRO_JSON_TEXT_H
#define KRO_JSON_TEXT_H

#include <string>

#include <Poco/JSON/Object.h>

namespace kro::detail
{
/// @return the bytes of object.stringify(out, 0, -1). POCO takes 3000 instructions for each member, a few
///         hundred do for a plain one; the others are still POCO's.
std::string jsonText(const Poco::JSON::Object& object);
}  // namespace kro::detail

#endif
