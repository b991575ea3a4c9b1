#include "NotificationCenter.h"

#include <algorithm>
#include <utility>

#include <Poco/SingletonHolder.h>

#include "LoadOrder.h"

namespace kro
{

namespace
{
// Built first: else the entries that an initialiser of a host has made could be lost, when this file's
// initialiser builds the holder anew after it.
KRO_BUILT_FIRST Poco::SingletonHolder<NotificationCenter> sh;
}  // namespace

NotificationCenter& NotificationCenter::defaultCenter()
{
    return *sh.get();
}

void NotificationCenter::setCallable(const std::string& name, std::function<void()> callable)
{
    replace(name, std::make_shared<const std::any>(std::move(callable)));
}

void NotificationCenter::replace(const std::string& name, std::shared_ptr<const std::any> entry)
{
    {
        const std::lock_guard<std::mutex> lock(notification_mutex);
        notification_entries[name].swap(entry);
    }
    // The former entry goes here, where its destructor may come back.
}

std::shared_ptr<const std::any> NotificationCenter::lookUp(const std::string& name) const
{
    const std::lock_guard<std::mutex> lock(notification_mutex);
    const auto found = notification_entries.find(name);
    return found == notification_entries.end() ? nullptr : found->second;
}

bool NotificationCenter::remove(const std::string& name)
{
    std::unique_lock<std::mutex> lock(notification_mutex);
    const auto removed = notification_entries.extract(name);
    lock.unlock();  // the entry goes after this, likewise
    return !removed.empty();
}

std::vector<std::string> NotificationCenter::names() const
{
    std::vector<std::string> found;
    {
        const std::lock_guard<std::mutex> lock(notification_mutex);
        for (const auto& entry : notification_entries) found.push_back(entry.first);
    }
    std::sort(found.begin(), found.end());
    return found;
}

std::vector<NotificationCenter::Failure> NotificationCenter::fire(const std::string& prefix) const
{
    std::vector<std::pair<std::string, std::shared_ptr<const std::any>>> due;
    {
        const std::lock_guard<std::mutex> lock(notification_mutex);
        for (const auto& entry : notification_entries)
            if (entry.first.compare(0, prefix.size(), prefix) == 0) due.emplace_back(entry);
    }
    std::sort(due.begin(), due.end());
    std::vector<Failure> failures;
    for (const auto& [name, entry] : due) {
        const auto* const callable = std::any_cast<std::function<void()>>(entry.get());
        if (callable == nullptr) continue;
        try {
            (*callable)();
        } catch (...) {
            failures.push_back({name, std::current_exception()});
        }
    }
    return failures;
}

}  // namespace kro
