#include "LogFormat.h"

#include <charconv>
#include <cstring>
#include <limits>

namespace kro::detail
{
namespace
{
using Kind = FormatArgument::Kind;

template <typename Number>
void appendNumber(std::string& result, const FormatArgument& argument)
{
    char digits[std::numeric_limits<Number>::digits10 + 3];
    const auto end =
        std::to_chars(digits, digits + sizeof digits, *static_cast<const Number*>(argument.value));
    result.append(digits, end.ptr);
}

void appendArgument(std::string& result, const FormatArgument& argument, Kind wanted)
{
    if (argument.kind != wanted) {
        result += "[ERRFMT]";
        return;
    }
    switch (wanted) {
        case Kind::Text:
            result += *static_cast<const std::string*>(argument.value);
            break;
        case Kind::Int:
            appendNumber<int>(result, argument);
            break;
        case Kind::Unsigned:
            appendNumber<unsigned>(result, argument);
            break;
        case Kind::Long:
            appendNumber<long>(result, argument);
            break;
        default:
            appendNumber<unsigned long>(result, argument);
    }
}
}  // namespace

bool formatCommon(std::string& result, const char* format, const FormatArgument* arguments, std::size_t count)
{
    const FormatArgument* const end = arguments + count;
    for (;;) {
        const char* const percent = std::strchr(format, '%');
        if (percent == nullptr) {
            result += format;
            return true;
        }
        result.append(format, percent);
        format = percent + 1;
        if (*format == '\0') {
            // POCO drops a lone "%" at the end when the arguments are used up. Before that it is its own
            // affair.
            return arguments == end;
        }
        if (arguments == end) {
            if (*format == '[') return false;  // an argument by its number
            result += *format++;  // with nothing left to print, a directive loses its "%" and stays
            continue;
        }
        switch (*format++) {
            case 's':
                appendArgument(result, *arguments++, Kind::Text);
                break;
            case 'd':
            case 'i':
                appendArgument(result, *arguments++, Kind::Int);
                break;
            case 'u':
                appendArgument(result, *arguments++, Kind::Unsigned);
                break;
            case 'z':
                appendArgument(result, *arguments++, FormatArgument::kindOf<std::size_t>());
                break;
            case 'l':
                if (*format == 'd' || *format == 'i') {
                    appendArgument(result, *arguments++, Kind::Long);
                } else if (*format == 'u') {
                    appendArgument(result, *arguments++, Kind::UnsignedLong);
                } else if (*format == 'l') {
                    result += 'l';  // one modifier is all that POCO reads: the second "l" is a plain letter
                } else {
                    return false;
                }
                ++format;
                break;
            case '%':
                result += '%';
                break;
            default:
                return false;
        }
    }
}

}  // namespace kro::detail
