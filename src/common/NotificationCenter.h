#ifndef KRO_NOTIFICATION_CENTER_H
#define KRO_NOTIFICATION_CENTER_H

#include <any>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "KroApi.h"

namespace kro
{

/// A table of named objects that the services of one process share, without knowing each other's headers
/// beyond the type of the object. One name is one entry: an object of any type, or a callable that others
/// fire.
///
///     auto& center = kro::NotificationCenter::defaultCenter();
///     center.set("station", std::make_shared<Station>("north"));                // one service
///     if (const auto station = center.find<Station>("station")) station->call();  // another one
///
///     center.setCallable("reload.cache", [] { reloadCache(); });
///     for (const auto& failure : center.fire("reload.")) report(failure.name, failure.error);
///
/// Thread-safe. Nothing of the host (a callable, a destructor, a copy of an object) runs with the lock held,
/// so whatever is called from here may call back into the centre. It holds a share in each object; whoever
/// looked one up holds another, so a removed object lives as long as it is in use.
class KRO_API NotificationCenter
{
public:
    /// A callable that threw while it was fired.
    struct Failure
    {
        std::string name;          ///< of its entry
        std::exception_ptr error;  ///< what it threw
    };

    NotificationCenter() = default;  ///< a centre of its own; services share defaultCenter()
    NotificationCenter(const NotificationCenter&) = delete;
    NotificationCenter& operator=(const NotificationCenter&) = delete;

    /// @return the process's one centre, made at the first call. It ends with the process, and lets its
    ///         entries go then: their destructors must not use it.
    /// @throws Poco::SystemException if its mutex can't be locked or unlocked.
    static NotificationCenter& defaultCenter();

    /// Adds an entry, or replaces whatever has the name. A fire() that is under way may still call a callable
    /// that was replaced.
    /// @param name    one name is one entry; any text.
    /// @param object  kept with its type T.
    /// @throws std::invalid_argument if `object` is null, which find() couldn't tell from no entry.
    template <typename T>
    void set(const std::string& name, std::shared_ptr<T> object)
    {
        if (!object) throw std::invalid_argument("the entry \"" + name + "\" has no object");
        replace(name, std::make_shared<const std::any>(std::move(object)));
    }

    /// As set(), with an entry that fire() calls.
    /// @param name      fire() goes by how it begins.
    /// @param callable  runs on the thread that fires; an empty one fails with std::bad_function_call.
    void setCallable(const std::string& name, std::function<void()> callable);

    /// @tparam T  the type that the entry was set with, const included: neither a base of it nor a derived
    /// one.
    /// @return the object, or null if there is no such entry.
    /// @throws std::invalid_argument if the entry is of another type, a callable for instance.
    template <typename T>
    std::shared_ptr<T> find(const std::string& name) const
    {
        const std::shared_ptr<const std::any> entry = lookUp(name);
        if (!entry) return nullptr;
        if (const auto* const object = std::any_cast<std::shared_ptr<T>>(entry.get())) return *object;
        throw std::invalid_argument("the entry \"" + name + "\" is of another type");
    }

    /// A fire() that is under way may still call the removed callable, also after this has returned: let what
    /// it uses live until then.
    /// @return true if there was such an entry.
    bool remove(const std::string& name);

    std::vector<std::string> names() const;  ///< of all entries, sorted

    /// Calls, one after the other and in the order of their names, all callables whose name begins with
    /// `prefix`, on the calling thread. What is called is settled at the start: a callable may add and remove
    /// entries, and that shows at the next fire().
    /// @return those that threw; the others were called all the same.
    std::vector<Failure> fire(const std::string& prefix) const;

private:
    void replace(const std::string& name, std::shared_ptr<const std::any> entry);
    std::shared_ptr<const std::any> lookUp(const std::string& name) const;

    mutable std::mutex notification_mutex;  // guards notification_entries; a leaf, no host code under it
    // A name to its shared object: a std::shared_ptr<T> or a std::function<void()>, with its type.
    std::unordered_map<std::string, std::shared_ptr<const std::any>> notification_entries;
};

}  // namespace kro

#endif
