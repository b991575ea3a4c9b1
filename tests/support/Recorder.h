#ifndef KRO_TESTS_RECORDER_H
#define KRO_TESTS_RECORDER_H

#include <algorithm>
#include <cstddef>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace kro::test
{
inline const std::string& textOf(const std::string& text)
{
    return text;
}

/// What happened, in order, on whatever threads.
template <typename T>
class Recorder
{
public:
    bool add(T value)  ///< @return true, which suits some callbacks
    {
        const std::lock_guard<std::mutex> lock(mutex);
        values.push_back(std::move(value));
        return true;
    }
    std::vector<T> all() const
    {
        const std::lock_guard<std::mutex> lock(mutex);
        return values;
    }
    void clear()
    {
        const std::lock_guard<std::mutex> lock(mutex);
        values.clear();
    }
    std::size_t count(const T& value) const
    {
        const auto now = all();
        return static_cast<std::size_t>(std::count(now.begin(), now.end(), value));
    }
    std::size_t countPrefix(const std::string& prefix) const
    {
        const auto now = all();
        return static_cast<std::size_t>(std::count_if(now.begin(), now.end(), [&](const T& value) {
            return textOf(value).compare(0, prefix.size(), prefix) == 0;
        }));
    }

private:
    mutable std::mutex mutex;  // guards values
    std::vector<T> values;
};
}  // namespace kro::test

#endif
