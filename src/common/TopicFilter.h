#ifndef KRO_TOPIC_FILTER_H
#define KRO_TOPIC_FILTER_H

#include <functional>
#include <map>
#include <string>
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

/// Wildcard filters, matched as MQTT 3.1.1 section 4.7 has it: "+" stands for one level, "#" for the rest and
/// for its parent level, and neither for a first level that begins with "$". Filters that the section does
/// not allow are taken as brokers never deliver for them: they match nothing in particular. Not thread-safe.
/// @tparam Value  what a filter leads to; kept by pointer.
template <typename Value>
class TopicTree
{
public:
    void add(std::string_view filter, const Value* value) { node(filter).value = value; }

    void remove(std::string_view filter) { remove(root, filter, false); }

    /// Calls `visit` with the value of each filter that matches `topic`.
    template <typename Visit>
    void match(std::string_view topic, Visit visit) const
    {
        walk(root, topic, false, !topic.empty() && topic.front() == '$', visit);
    }

private:
    struct Node
    {
        const Value* value = nullptr;  // of the filter that ends here
        std::map<std::string, Node, std::less<>> below;
    };

    // The first level of `levels`, which is cut off it; sets `ended` if it was the last one.
    static std::string_view cut(std::string_view& levels, bool& ended)
    {
        const auto slash = levels.find('/');
        const std::string_view level = levels.substr(0, slash);
        ended = slash == std::string_view::npos;
        levels = ended ? std::string_view() : levels.substr(slash + 1);
        return level;
    }

    Node& node(std::string_view filter)
    {
        Node* at = &root;
        for (bool ended = false; !ended;) at = &at->below[std::string(cut(filter, ended))];
        return *at;
    }

    /// @return whether nothing is left in `at`.
    static bool remove(Node& at, std::string_view levels, bool ended)
    {
        if (ended) {
            at.value = nullptr;
        } else {
            const auto next = at.below.find(cut(levels, ended));
            if (next != at.below.end() && remove(next->second, levels, ended)) at.below.erase(next);
        }
        return at.value == nullptr && at.below.empty();
    }

    template <typename Visit>
    static void walk(const Node& at, std::string_view levels, bool ended, bool no_wildcard, Visit& visit)
    {
        const auto rest = no_wildcard ? at.below.end() : at.below.find(std::string_view("#"));
        if (rest != at.below.end() && rest->second.value != nullptr) visit(*rest->second.value);
        if (ended) {
            if (at.value != nullptr) visit(*at.value);
            return;
        }
        const std::string_view level = cut(levels, ended);
        const auto same = at.below.find(level);
        if (same != at.below.end()) walk(same->second, levels, ended, false, visit);
        const auto any = no_wildcard ? at.below.end() : at.below.find(std::string_view("+"));
        if (any != at.below.end()) walk(any->second, levels, ended, false, visit);
    }

    Node root;
};
}  // namespace kro::detail

#endif
