#ifndef KRO_THREAD_POOL_H
#define KRO_THREAD_POOL_H

#include <functional>
#include <list>
#include <memory>
#include <memory_resource>
#include <string>
#include <type_traits>

#include <Poco/Mutex.h>
#include <Poco/Runnable.h>
#include <Poco/TaskManager.h>
#include <Poco/ThreadPool.h>

#include "KroApi.h"

namespace kro
{

/// Runs plain callables on the threads of a Poco::ThreadPool. There is no queue: a task gets a thread at
/// once, or the call that offered it throws.
///
/// Only a pool that a std::shared_ptr owns gives a task's captures back when the task has ended. Any other
/// pool (a member, a Poco::SharedPtr) keeps every task that it ever ran, captures included, until it is
/// destroyed; and so does every pool with a task that threw no std::exception, or that ended before start() had
/// returned. With kReleaseAdapters every pool gives them back.
///
/// Thread-safe. A captured object whose destructor starts a task on the same pool blocks for ever: captures
/// are destroyed on the pool's thread with the pool's own mutex held (with kReleaseAdapters without it). Stop
/// feeding a pool and let its tasks end before you destroy it.
class KRO_API ThreadPool : public Poco::ThreadPool, public std::enable_shared_from_this<ThreadPool>
{
public:
    /// @param min_capacity  threads that are started at once and kept.
    /// @param max_capacity  most threads, and so most tasks at one time.
    /// @param idle_seconds  after so many seconds without a task a thread above the minimum ends.
    /// @param stack_bytes   stack of each thread, 0 for the platform's default.
    ThreadPool(int min_capacity, int max_capacity, int idle_seconds, int stack_bytes);
    /// As above, with a name, which shows in those of its Poco::Threads.
    ThreadPool(const std::string& name, int min_capacity, int max_capacity, int idle_seconds,
               int stack_bytes);
    ~ThreadPool();
    ThreadPool(const ThreadPool&) = delete;
    ThreadPool& operator=(const ThreadPool&) = delete;

    /// The process-wide pool "default" of 1 to 32 threads, made at the first call; it lives until the process
    /// ends. Any thread.
    static ThreadPool& defaultPool();

    /// Runs `task` on a pool thread now. What the task throws is logged and dropped if it is a std::exception
    /// (Poco::Exception is one); anything else goes to Poco::ThreadPool's error handler.
    /// @param task  may be empty: it then takes a thread and runs nothing.
    /// @throws Poco::NoThreadAvailableException if all threads are busy; the refusal is logged at ERROR, and
    ///         the task never runs.
    void start(std::function<void()> task);

    /// As above.
    /// @param task  likewise.
    /// @param name  of the thread for this run, as Poco::ThreadPool::start takes it.
    void start(std::function<void()> task, const std::string& name);

    /// As start(), at one of two priorities.
    /// @param task          likewise.
    /// @param name          likewise.
    /// @param low_priority  true for Poco::Thread::PRIO_LOWEST, false for Poco::Thread::PRIO_NORMAL.
    void startWithPriority(std::function<void()> task, const std::string& name, bool low_priority);

private:
    /// The bridge from a callable to POCO's Runnable.
    class KRO_LOCAL RunnableAdapter : public Poco::Runnable
    {
    public:
        RunnableAdapter(std::function<void()> callable, std::weak_ptr<ThreadPool> owner);
        void run() override;

    private:
        friend class ThreadPool;
        void runTask() const;

        std::function<void()> task;      // may be empty
        std::weak_ptr<ThreadPool> pool;  // empty when no std::shared_ptr owns the pool
        bool releases_itself = false;    // in no list: goes at the end of its run
    };

    template <typename HandOver>
    void start_l(std::function<void()> task, HandOver hand_over);  // takes live_adapters_mutex
    void taskFinished(RunnableAdapter* adapter);  // on the thread that ran it; takes live_adapters_mutex

    // Nodes side by side, since taskFinished() walks them. A host may replace the default resource: not asked.
    std::pmr::unsynchronized_pool_resource adapter_nodes{std::pmr::new_delete_resource()};
    // Strong references to the started tasks that have not been reported finished, in order of starting:
    // Poco::ThreadPool itself holds no more than a plain reference.
    std::pmr::list<std::shared_ptr<RunnableAdapter>> live_adapters{&adapter_nodes};
    Poco::FastMutex live_adapters_mutex;  // guards live_adapters; held while a finished task's captures go
};

namespace detail
{
/// Gives Poco::TaskManager the constructor that makes a pool of its own. Where POCO has it, it is POCO's.
template <typename Base, bool kBaseMakesPool>
class NamedTaskManager : public Base
{
public:
    using Base::Base;
};

/// POCO 1.11 has none: there the pool stands in a base of ours, which outlives Poco::TaskManager.
template <typename Base>
class NamedTaskManager<Base, false> : private std::unique_ptr<Poco::ThreadPool>, public Base
{
    using OwnPool = std::unique_ptr<Poco::ThreadPool>;

public:
    NamedTaskManager(const std::string& name, int min_capacity, int max_capacity, int idle_seconds,
                     int stack_bytes)
        : OwnPool(new Poco::ThreadPool(name, min_capacity, max_capacity, idle_seconds, stack_bytes)),
          Base(*OwnPool::get())
    {}
    explicit NamedTaskManager(Poco::ThreadPool& pool) : Base(pool) {}
};

using TaskManagerBase =
    NamedTaskManager<Poco::TaskManager,
                     std::is_constructible_v<Poco::TaskManager, const std::string&, int, int, int, int>>;
}  // namespace detail

/// Poco::TaskManager under the library's name, for hosts; the library itself makes none.
class KRO_API TaskManager : public detail::TaskManagerBase
{
public:
    /// Makes a pool of its own, whose name and limits are given as to ThreadPool.
    TaskManager(const std::string& name, int min_capacity, int max_capacity, int idle_seconds,
                int stack_bytes);

    /// @param pool  must outlive the manager.
    explicit TaskManager(Poco::ThreadPool& pool);
};

}  // namespace kro

#endif
