#include "JsonText.h"

#include <algorithm>
#include <charconv>
#include <sstream>
#include <string_view>
#include <typeinfo>

#include <Poco/JSON/Stringifier.h>

namespace kro::detail
{
namespace
{
void appendString(std::string& text, const std::string& value)
{
    const bool stands_for_itself = std::all_of(value.begin(), value.end(), [](char c) {
        return c >= ' ' && c <= '~' && c != '"' && c != '\\' && c != '/';
    });
    if (stands_for_itself) {
        text += '"';
        text += value;
        text += '"';
        return;
    }
    std::ostringstream out;
    Poco::JSON::Stringifier::formatString(value, out);
    text += out.str();
}

template <typename Number>
bool appendIf(std::string& text, const Poco::Dynamic::Var& value)
{
    if (value.type() != typeid(Number)) return false;
    char digits[24];
    const auto end = std::to_chars(digits, digits + sizeof digits, value.extract<Number>()).ptr;
    text.append(digits, end);
    return true;
}

void appendValue(std::string& text, const Poco::Dynamic::Var& value)
{
    if (value.type() == typeid(std::string)) {
        appendString(text, value.extract<std::string>());
    } else if (value.type() == typeid(bool)) {
        text += value.extract<bool>() ? "true" : "false";
    } else if (value.type() == typeid(double)) {
        text += value.convert<std::string>();
    } else if (!appendIf<int>(text, value) && !appendIf<long>(text, value) &&
               !appendIf<long long>(text, value) && !appendIf<unsigned>(text, value) &&
               !appendIf<unsigned long>(text, value))
    {
        std::ostringstream out;
        Poco::JSON::Stringifier::stringify(value, out, 0, -1);
        text += out.str();
    }
}
}  // namespace

std::string jsonText(const Poco::JSON::Object& object)
{
    // In order of insertion if it was made so, else sorted, as its map is.
    thread_local Poco::JSON::Object::NameList names;  // keeps its room
    object.getNames(names);
    if (object.getEscapeUnicode() || !std::is_sorted(names.begin(), names.end())) {
        std::ostringstream out;
        object.stringify(out, 0, -1);
        return out.str();
    }
    std::string text;
    text.reserve(512);
    text += '{';
    for (const auto& [name, value] : object) {
        if (text.size() > 1) text += ',';
        appendString(text, name);
        text += ':';
        appendValue(text, value);
    }
    text += '}';
    return text;
}

}  // namespace kro::detail
