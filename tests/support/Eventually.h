#ifndef KRO_TESTS_EVENTUALLY_H
#define KRO_TESTS_EVENTUALLY_H

#include <chrono>
#include <thread>

namespace kro::test
{
/// Waits until `condition` holds, looking every millisecond.
/// @return false if it still does not hold at the deadline.
template <typename Condition>
bool eventually(Condition condition, std::chrono::milliseconds deadline = std::chrono::seconds(20))
{
    const auto end = std::chrono::steady_clock::now() + deadline;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}
}  // namespace kro::test

#endif
