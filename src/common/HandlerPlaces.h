#ifndef KRO_HANDLER_PLACES_H
#define KRO_HANDLER_PLACES_H

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>

namespace kro::detail
{
/// Places for message handlers on the pool. Who waits for one gets it in the order of asking, before anybody
/// who only tries. Thread-safe; its mutex is a leaf.
class HandlerPlaces
{
public:
    explicit HandlerPlaces(int places) : free(places) {}

    /// Waits for a place.
    /// @param wanted  the wait ends with false once this is false and wake() has been called.
    bool take(const std::atomic<bool>& wanted)
    {
        std::unique_lock<std::mutex> lock(mutex);
        waiting.push_back(&wanted);
        any_waiting = true;
        changed.wait(lock, [&] { return !wanted || (free > 0 && waiting.front() == &wanted); });
        waiting.erase(std::find(waiting.begin(), waiting.end(), &wanted));
        any_waiting = !waiting.empty();
        const bool taken = wanted;
        if (taken) --free;
        changed.notify_all();  // the next one may be in front now
        return taken;
    }

    bool tryTake()
    {
        const std::lock_guard<std::mutex> lock(mutex);
        if (free <= static_cast<int>(waiting.size())) return false;
        --free;
        return true;
    }

    void giveBack()
    {
        const std::lock_guard<std::mutex> lock(mutex);
        giveBack_l();
    }

    /// Gives the place back if somebody waits for whom none is free; no more places than there are waiting.
    bool giveBackIfWanted()
    {
        if (!any_waiting) return false;
        const std::lock_guard<std::mutex> lock(mutex);
        if (free >= static_cast<int>(waiting.size())) return false;
        giveBack_l();
        return true;
    }

    /// Lets everyone who waits look again at what they were given as `wanted`.
    void wake()
    {
        const std::lock_guard<std::mutex> lock(mutex);
        changed.notify_all();
    }

private:
    void giveBack_l()  // mutex held
    {
        ++free;
        if (!waiting.empty()) changed.notify_all();
    }

    std::mutex mutex;  // guards all but any_waiting
    std::condition_variable changed;
    int free;
    std::deque<const std::atomic<bool>*> waiting;  // in the order of asking
    std::atomic<bool> any_waiting{false};  // of waiting, for a look without the mutex after each handler
};
}  // namespace kro::detail

#endif
