#include "ThreadPool.h"

#include <algorithm>
#include <exception>
#include <memory>
#include <utility>

#include <Poco/Exception.h>
#include <Poco/Thread.h>

#include "LoadOrder.h"
#include "Logger.h"
#include "Safeguards.h"
#include "ThreadName.h"

namespace kro
{

ThreadPool::RunnableAdapter::RunnableAdapter(std::function<void()> callable, std::weak_ptr<ThreadPool> owner)
    : task(std::move(callable)), pool(std::move(owner))
{}

void ThreadPool::RunnableAdapter::run()
{
    // Once a thread: else it bears the name of whoever happened to start it, a client's own thread for one.
    thread_local const bool named = (detail::nameThisThread("kro-pool"), true);
    static_cast<void>(named);
    if (releases_itself) {
        const std::unique_ptr<RunnableAdapter> own(
            this);  // also when the task throws what is not caught here
        runTask();
        return;
    }
    // Taken now: a pool that is destroyed under its tasks drops this adapter before the task has ended.
    const std::weak_ptr<ThreadPool> starter = pool;
    // Settled: anything that is no std::exception leaves run() at once, and the adapter stays in the list.
    runTask();
    // Settled: in a pool that no std::shared_ptr owns there is nobody to tell, and the adapter stays.
    const std::shared_ptr<ThreadPool> owner = starter.lock();
    if (owner) owner->taskFinished(this);  // destroys *this as a rule: nothing of it is touched from here on
}

void ThreadPool::RunnableAdapter::runTask() const
{
    if (!task) return;
    try {
        task();
    } catch (const Poco::Exception& e) {
        KRO_LOG_ERROR(e.displayText());
    } catch (const std::exception& e) {
        KRO_LOG_ERROR(e.what());
    }
}

ThreadPool::ThreadPool(int min_capacity, int max_capacity, int idle_seconds, int stack_bytes)
    : Poco::ThreadPool(min_capacity, max_capacity, idle_seconds, stack_bytes)
{}

ThreadPool::ThreadPool(const std::string& name, int min_capacity, int max_capacity, int idle_seconds,
                       int stack_bytes)
    : Poco::ThreadPool(name, min_capacity, max_capacity, idle_seconds, stack_bytes)
{}

// Settled: the adapters of tasks that still run are dropped first, and only then does the base stop the
// threads.
ThreadPool::~ThreadPool() = default;

template <typename HandOver>
void ThreadPool::start_l(std::function<void()> task, HandOver hand_over)
{
    std::unique_ptr<RunnableAdapter> own;  // with kReleaseAdapters
    std::shared_ptr<RunnableAdapter> listed;
    if (safeguarded(kReleaseAdapters)) {
        own = std::make_unique<RunnableAdapter>(std::move(task), std::weak_ptr<ThreadPool>());
        own->releases_itself = true;
    } else {
        listed = std::make_shared<RunnableAdapter>(std::move(task), weak_from_this());
    }
    try {
        // Settled: the hand-over comes first, so that a refused task is never in the list. The price is that
        // a task which ends before it is listed stays in the list until the pool goes.
        hand_over(own ? *own : *listed);
        if (own) {
            static_cast<void>(own.release());  // the run's own from here on, and gone already perhaps
            return;
        }
        const Poco::FastMutex::ScopedLock lock(live_adapters_mutex);
        live_adapters.push_back(listed);
    } catch (const std::exception& e) {
        KRO_LOG_ERROR("exception: %s", std::string(e.what()));
        throw;
    }
}

void ThreadPool::start(std::function<void()> task)
{
    start(std::move(task), std::string());
}

void ThreadPool::start(std::function<void()> task, const std::string& name)
{
    start_l(std::move(task), [&](RunnableAdapter& adapter) { Poco::ThreadPool::start(adapter, name); });
}

void ThreadPool::startWithPriority(std::function<void()> task, const std::string& name, bool low_priority)
{
    const auto priority = low_priority ? Poco::Thread::PRIO_LOWEST : Poco::Thread::PRIO_NORMAL;
    start_l(std::move(task),
            [&](RunnableAdapter& adapter) { Poco::ThreadPool::startWithPriority(priority, adapter, name); });
}

void ThreadPool::taskFinished(RunnableAdapter* adapter)
{
    const Poco::FastMutex::ScopedLock lock(live_adapters_mutex);
    const auto found = std::find_if(live_adapters.begin(), live_adapters.end(),
                                    [adapter](const auto& candidate) { return candidate.get() == adapter; });
    if (found != live_adapters.end()) live_adapters.erase(found);
}

/// Owns the default pool from its first use to the end of the process.
class KROThreadPoolSingletonHolder
{
public:
    ~KROThreadPoolSingletonHolder()
    {
        pool.reset();  // at exit, when nobody calls defaultPool() any more: needs no lock
    }

    ThreadPool& get()
    {
        const Poco::FastMutex::ScopedLock lock(mutex);
        // A plain new, wrapped: that too fills in the pool's weak reference to itself.
        if (!pool) pool = std::shared_ptr<ThreadPool>(new ThreadPool("default", 1, 32, 60, 0));
        return *pool;
    }

private:
    std::shared_ptr<ThreadPool> pool;
    Poco::FastMutex mutex;  // guards the creation and the reading of pool
};

namespace
{
// Built first: an initialiser of a host that uses the default pool may run before this file's, which would
// then build the holder anew over a pool that runs already.
KRO_BUILT_FIRST KROThreadPoolSingletonHolder sh;
}  // namespace

ThreadPool& ThreadPool::defaultPool()
{
    return sh.get();
}

TaskManager::TaskManager(const std::string& name, int min_capacity, int max_capacity, int idle_seconds,
                         int stack_bytes)
    : detail::TaskManagerBase(name, min_capacity, max_capacity, idle_seconds, stack_bytes)
{}

TaskManager::TaskManager(Poco::ThreadPool& pool) : detail::TaskManagerBase(pool) {}

}  // namespace kro
