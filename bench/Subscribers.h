#ifndef KRO_BENCH_SUBSCRIBERS_H
#define KRO_BENCH_SUBSCRIBERS_H

#include <cstddef>
#include <functional>
#include <map>
#include <string>

namespace kro::bench
{
/// The work of a message, on whatever thread the subscriber gives it.
using Work = std::function<void(const void* payload, std::size_t bytes)>;

/// Connects to the broker, subscribes `topic` there, and has `work` done for each message until the process
/// ends.
using Subscriber =
    std::function<void(const std::string& uri, const std::string& topic, int qos, const Work& work)>;

/// Those that this program was built with, by name.
const std::map<std::string, Subscriber>& subscribers();
}  // namespace kro::bench

#endif
