#ifndef KRO_LOG_FORMAT_H
#define KRO_LOG_FORMAT_H

#include <cstddef>
#include <string>
#include <type_traits>

#include "KroApi.h"

namespace kro::detail
{
/// One argument of a log line, as a reference: it lives no longer than the call that it is made for.
struct FormatArgument
{
    enum class Kind
    {
        Text,
        Int,
        Unsigned,
        Long,
        UnsignedLong,
        Other  ///< prints [ERRFMT] under every directive that formatCommon() takes
    };

    template <typename T>
    static constexpr Kind kindOf()
    {
        if (std::is_same_v<T, std::string>) return Kind::Text;
        if (std::is_same_v<T, int>) return Kind::Int;
        if (std::is_same_v<T, unsigned>) return Kind::Unsigned;
        if (std::is_same_v<T, long>) return Kind::Long;
        if (std::is_same_v<T, unsigned long>) return Kind::UnsignedLong;
        return Kind::Other;
    }

    template <typename T>
    explicit FormatArgument(const T& argument) : kind(kindOf<std::decay_t<T>>()), value(&argument)
    {}

    Kind kind;
    const void* value;  // points at the type that kind names
};

/// Appends to `result` what Poco::format makes of the same format and arguments, without a stream and without
/// an allocation for each argument. It knows %s, %d, %i, %u, %z, %ld, %lu, the %llu that Poco::format prints
/// as "lu", and %%. Numbers are printed without regard to the locale, as Poco::format has it.
/// @return false if something else stands in `format`: `result` then holds a part of the text, and
///         Poco::format itself has to do it.
KRO_API bool formatCommon(std::string& result, const char* format, const FormatArgument* arguments,
                          std::size_t count);
}  // namespace kro::detail

#endif
