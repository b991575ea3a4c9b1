#ifndef KRO_BACKOFF_H
#define KRO_BACKOFF_H

#include <algorithm>
#include <cstdint>

namespace kro::detail
{
/// The delay in front of a reconnection, without its jitter, in milliseconds.
/// @param failures       failures and losses since the last success, this one included: 1 or more.
/// @param quick          the short table is in force: the link lived less than an hour.
/// @param base_delay_ms  base of the linear part: 2 s steps with the usual 1000, and no more than 60 s.
inline int backoffDelayMs(int failures, bool quick, std::int64_t base_delay_ms)
{
    constexpr std::int64_t kLongestDelayMs = 60000;
    if (quick && failures <= 2) return 1000;
    if (quick && failures <= 5) return 3000;
    return static_cast<int>(
        std::min(2 * (static_cast<std::int64_t>(failures) - 1) * base_delay_ms, kLongestDelayMs));
}
}  // namespace kro::detail

#endif
