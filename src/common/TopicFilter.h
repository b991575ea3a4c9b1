#ifndef KRO_TOPIC_FILTER_H
#define KRO_TOPIC_FILTER_H

#include <string_view>

namespace kro::detail
{
/// Settled: a wildcard filter matches inbound topics as text, by what stands in front of its first "/#", or
/// else of its first "/+". So "a/+/c" matches "a/b/d" and "abc" too, and "#", "+/x" and "/#" match nothing.
/// Brokers deliver by MQTT 3.1.1 section 4.7; this only finds the handlers, and hosts count on it as it is.
/// @return the prefix, empty if the filter has none.
inline std::string_view wildcardPrefix(std::string_view filter)
{
    auto end = filter.find("/#");
    if (end == std::string_view::npos) end = filter.find("/+");
    return end == std::string_view::npos ? std::string_view() : filter.substr(0, end);
}

inline bool matchesWildcard(std::string_view filter, std::string_view topic)
{
    const std::string_view prefix = wildcardPrefix(filter);
    return !prefix.empty() && topic.substr(0, prefix.size()) == prefix;
}
}  // namespace kro::detail

#endif
