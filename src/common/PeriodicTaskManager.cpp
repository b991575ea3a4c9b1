#include "PeriodicTaskManager.h"

#include <algorithm>
#include <condition_variable>
#include <exception>
#include <utility>

#include "Logger.h"

using std::chrono::milliseconds;
using std::chrono::steady_clock;

namespace kro
{

/// How the manager ends with the process while its threads are at work, be they the detached monitor,
/// sleeping watches or functions. The manager is a static object, so exit() destroys it, and a host that
/// forgot to stop the monitor must not crash there. So the monitor is counted here from its start to its last
/// touch of the manager, and both of our own sleeps (after a pass, and of a watch) happen here, where the
/// destructor can end them. It then waits for a pass that is under way, which is short, and for runs, since
/// the pool would drop their adapters under them. Nothing else waits: stopPeriodMonitorTask() returns at
/// once, and the thread is detached.
///
/// The threads share the gate, which therefore outlives the manager.
struct PeriodicTaskManager::ExitGate
{
    /// Sleeps as std::this_thread::sleep_for() does, but no longer than the manager lives.
    void sleep(milliseconds duration)
    {
        constexpr milliseconds kMostAtOnce =
            std::chrono::hours(1);  // the clock can't tell a time centuries ahead
        std::unique_lock<std::mutex> lock(mutex);
        while (duration.count() > 0 && !closing) {
            const milliseconds piece = std::min(duration, kMostAtOnce);
            changed.wait_for(lock, piece, [this] { return closing; });
            duration -= piece;
        }
    }

    void monitorEnters()
    {
        const std::lock_guard<std::mutex> lock(mutex);
        ++monitors;
    }

    void monitorLeaves()
    {
        const std::lock_guard<std::mutex> lock(mutex);
        --monitors;
        changed.notify_all();
    }

    /// Holds the calling thread for good if nobody waited for its run: what it would return to is gone.
    void holdIfAbandoned()
    {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait(lock, [this] { return !abandoned; });
    }

    std::mutex mutex;                 // guards all below; a leaf
    std::condition_variable changed;  // closing was set or monitors has sunk
    bool closing = false;             // the destructor is at work: nobody sleeps any more
    bool abandoned = false;           // it has waited long enough and goes on
    int monitors = 0;                 // threads that may still touch the manager
};

namespace
{
thread_local bool s_inside_run = false;  // of any manager; there is one
}

PeriodicTaskManager::PeriodicTaskManager()
    : thread_pool(1, 32, 60, 0), exit_gate(std::make_shared<ExitGate>())
{}

PeriodicTaskManager::~PeriodicTaskManager()
{
    monitor_running = false;
    if (monitor_thread.joinable()) monitor_thread.join();  // it is detached as a rule, and awaited below
    std::unordered_map<unsigned int, std::shared_ptr<TaskContext>> ended;
    {
        const std::lock_guard<std::mutex> lock(tasks_mutex);
        for (const auto& entry : tasks) {
            entry.second->task_abort = true;
            entry.second->task_status = TASK_CANCELLED;
        }
        tasks.swap(ended);
    }
    awaitThreads_l();
}

void PeriodicTaskManager::awaitThreads_l()
{
    // The patience that POCO's pool, too, has with each of its threads when it is destroyed.
    const auto deadline = steady_clock::now() + std::chrono::seconds(10);
    {
        std::unique_lock<std::mutex> lock(exit_gate->mutex);
        exit_gate->closing = true;
        exit_gate->changed.notify_all();
        exit_gate->changed.wait_until(lock, deadline, [this] { return exit_gate->monitors == 0; });
    }
    // Only the pool knows when a thread is through with its adapter, and has no event with a deadline to wait
    // for. A run that has called exit() is on this thread, and never returns to what goes here.
    const int own = s_inside_run ? 1 : 0;
    while (thread_pool.used() > own && steady_clock::now() < deadline)
        std::this_thread::sleep_for(milliseconds(1));
    const std::lock_guard<std::mutex> lock(exit_gate->mutex);
    exit_gate->abandoned = true;
}

PeriodicTaskManager& PeriodicTaskManager::getInstance()
{
    static PeriodicTaskManager instance;
    return instance;
}

// The types of the arguments of log lines are part of the lines, also where Poco::format prints something
// else for them than one would expect: people search for what is printed.

unsigned int PeriodicTaskManager::registerTask(std::string& name, milliseconds period,
                                               std::function<void()> func, milliseconds timeout)
{
    const long period_ms = period.count();
    if (period_ms < 1) {
        KRO_LOG_ERROR("period error period: %llu", period_ms);
        return 0;
    }
    if (!func) {
        KRO_LOG_ERROR("task Func is nullptr!");
        return 0;
    }
    const auto task = std::make_shared<TaskContext>();
    task->task_id = next_task_id++;
    task->task_period = period;
    task->task_func = std::move(func);
    task->task_timeout = timeout;
    task->task_last_run = steady_clock::now();
    task->task_name = name;

    const std::lock_guard<std::mutex> lock(tasks_mutex);
    tasks[task->task_id] = task;
    task_periods.insert(static_cast<unsigned long>(period_ms));
    KRO_LOG_INFORMATION("registerTask task name: %s, period: %llu count: %d", name, period_ms,
                        task_periods.size());
    return task->task_id;
}

bool PeriodicTaskManager::cancelTask(unsigned int task_id)
{
    const std::lock_guard<std::mutex> lock(tasks_mutex);
    const auto found = tasks.find(task_id);
    if (found == tasks.end()) return false;
    TaskContext& task = *found->second;
    task.task_abort = true;
    if (task.task_status < TASK_FINISHED) task.task_status = TASK_CANCELLED;
    // Settled: a second cancel before the clean-up finds the record again and erases one more element of the
    // same period, even if it stands for another task; the monitor may then wake less often than that task
    // needs.
    const long period_ms = task.task_period.count();
    const auto period = task_periods.lower_bound(static_cast<unsigned long>(period_ms));
    if (period != task_periods.end() && *period == static_cast<unsigned long>(period_ms))
        task_periods.erase(period);
    KRO_LOG_INFORMATION("cancelTask id: %d, period: %llu, count: %llu", task_id, period_ms,
                        task_periods.size());
    return true;
}

TaskStatus PeriodicTaskManager::getTaskStatus(unsigned int task_id) const
{
    const std::lock_guard<std::mutex> lock(tasks_mutex);
    const auto found = tasks.find(task_id);
    if (found != tasks.end()) return found->second->task_status;
    KRO_LOG_ERROR("Task ID [%llu] not found!", task_id);
    return TASK_NOT_FOUND;
}

std::size_t PeriodicTaskManager::getTaskCount() const
{
    const std::lock_guard<std::mutex> lock(tasks_mutex);
    return tasks.size();
}

void PeriodicTaskManager::showAllTaskInfo(std::stringstream& stream)
{
    stream
        << "task id   name  period    timout    status \n";  // "timout" is what readers of the listing know
    const std::lock_guard<std::mutex> lock(tasks_mutex);
    for (const auto& entry : tasks) {
        const TaskContext& task = *entry.second;
        stream << task.task_id << "  " << task.task_name << "  " << task.task_period.count() << "ms  "
               << task.task_timeout.count() << "ms " << static_cast<int>(task.task_status.load())
               << std::endl;
    }
}

void PeriodicTaskManager::executeTask(const std::shared_ptr<TaskContext>& task)
{
    try {
        task->task_func();
        if (task->task_abort || task->task_status == TASK_TIMEOUT) return;
    } catch (const std::exception& e) {
        KRO_LOG_ERROR("Task id: %d, execution failed: %s", task->task_id, e.what());
        if (task->task_abort) return;
    } catch (...) {
        KRO_LOG_ERROR("Task id: %d, unknown execution error", task->task_id);
        if (task->task_abort) return;
    }
    // A cancel that comes just here is overwritten; the next run then finds task_abort and cancels once more.
    task->task_status = TASK_FINISHED;
    task->task_status = TASK_IDLE;
}

void PeriodicTaskManager::startPeriodMonitorTask()
{
    monitor_running = true;
    exit_gate->monitorEnters();
    try {
        monitor_thread = std::thread([this, gate = exit_gate] {
            // Settled: nothing is caught here. A full pool, or anything else that a pass throws, ends the
            // process.
            while (monitor_running) monitorPeriodTasks();
            gate->monitorLeaves();  // from here on the manager may be gone
        });
    } catch (...) {
        exit_gate->monitorLeaves();
        throw;
    }
    monitor_thread.detach();
}

void PeriodicTaskManager::stopPeriodMonitorTask()
{
    monitor_running = false;  // Settled: no wait; the thread ends after the pass and the sleep that it is in
}

void PeriodicTaskManager::monitorPeriodTasks()
{
    const auto now = steady_clock::now();
    due_tasks.clear();
    {
        const std::lock_guard<std::mutex> lock(tasks_mutex);
        for (const auto& entry : tasks) {
            TaskContext& task = *entry.second;
            // In whole milliseconds, which says the same of a whole period: a long one in nanoseconds
            // overflows.
            const auto waited = std::chrono::duration_cast<milliseconds>(now - task.task_last_run);
            if (task.task_status != TASK_IDLE || task.task_period > waited) continue;
            due_tasks.push_back(entry.second);
            task.task_last_run = now;
            task.task_status = TASK_RUNNING;
        }
    }
    for (const auto& task : due_tasks) executeTaskWithTimeout(task);
    cleanUpTasks();
    adjustMonitorInterval();
    if (monitor_interval.count() >= 1) exit_gate->sleep(monitor_interval);
}

void PeriodicTaskManager::executeTaskWithTimeout(const std::shared_ptr<TaskContext>& task)
{
    thread_pool.startWithPriority([this, task] { run_l(task); }, task->task_name, false);
}

// By value: where the destructor has waited long enough, the adapter goes, and with it the lambda's own
// share. NOLINTNEXTLINE(performance-unnecessary-value-param)
void PeriodicTaskManager::run_l(std::shared_ptr<TaskContext> task)
{
    if (task->task_abort || task->task_status == TASK_CANCELLED) {
        task->task_status = TASK_CANCELLED;
        return;
    }
    {
        const std::lock_guard<std::mutex> lock(
            tasks_mutex);  // a late watch of a former run may be reading it
        task->task_exec_start = steady_clock::now();
    }
    // Settled: where the pool refuses the watch, the exception ends this run before its function was called;
    // the task stays TASK_RUNNING and is never due again.
    if (task->task_timeout.count() > 0) timeoutMonitor(task);
    const auto gate = exit_gate;
    s_inside_run = true;
    executeTask(task);
    s_inside_run = false;
    gate->holdIfAbandoned();
}

void PeriodicTaskManager::timeoutMonitor(const std::shared_ptr<TaskContext>& task)
{
    thread_pool.startWithPriority([this, task] { watch_l(task); }, "monitor task", true);
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): as run_l()
void PeriodicTaskManager::watch_l(std::shared_ptr<TaskContext> task)
{
    while (task->task_status == TASK_RUNNING) {
        steady_clock::time_point started;
        {
            const std::lock_guard<std::mutex> lock(tasks_mutex);
            started = task->task_exec_start;
        }
        const auto elapsed = std::chrono::duration_cast<milliseconds>(steady_clock::now() - started);
        if (elapsed < task->task_timeout) {
            // Settled: one look is all. A watch that comes in time sleeps the rest of the time-out away, on
            // its pool thread, and ends without a verdict, however long the function takes.
            exit_gate->sleep(task->task_timeout - elapsed);
            return;
        }
        // Settled: a run whose watch comes too late is declared timed out and goes on. In spite of the line
        // the record stays in the table, and its period with it; it never runs again.
        const long timeout_ms = task->task_timeout.count();
        task->task_abort = true;
        task->task_status = TASK_TIMEOUT;
        KRO_LOG_ERROR("Task id: %d, timeout: %llu - will be deleted", task->task_id, timeout_ms);
    }
}

void PeriodicTaskManager::cleanUpTasks()
{
    std::vector<std::shared_ptr<TaskContext>>
        removed;  // outlives the lock: a function's captures may call back
    const std::lock_guard<std::mutex> lock(tasks_mutex);
    for (auto entry = tasks.begin(); entry != tasks.end();) {
        if (entry->second->task_status != TASK_CANCELLED) {
            ++entry;
            continue;
        }
        removed.push_back(std::move(entry->second));
        entry = tasks.erase(entry);
    }
}

void PeriodicTaskManager::adjustMonitorInterval()
{
    const std::lock_guard<std::mutex> lock(tasks_mutex);
    long interval_ms = 2000;
    if (!task_periods.empty()) {
        const unsigned long shortest_ms = *task_periods.begin();
        const long tenth_ms = static_cast<long>(shortest_ms / 10);
        // Settled: compared before the limits apply. So with a shortest period below 100 ms or above 20009
        // ms, and with no task at all, the line below is written at every pass though nothing changes.
        if (monitor_interval.count() == tenth_ms) return;
        if (shortest_ms < 100)
            interval_ms = 10;
        else if (shortest_ms <= 20009)
            interval_ms = tenth_ms;
    }
    monitor_interval = milliseconds(interval_ms);
    KRO_LOG_INFORMATION("Adjust monitor interval to %llu ms", interval_ms);
}

}  // namespace kro
