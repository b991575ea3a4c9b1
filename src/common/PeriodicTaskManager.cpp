#include "PeriodicTaskManager.h"

#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <exception>
#include <utility>

#include <Poco/Exception.h>

#include "Logger.h"
#include "Safeguards.h"

using std::chrono::milliseconds;
using std::chrono::steady_clock;

namespace kro
{

/// Where the manager's end meets its threads: the monitor is counted here from its start to its last touch of
/// the manager, and both of our own sleeps (after a pass, and of a watch) happen here, where the end can wake
/// them. The monitor's thread has a share in it, since it may still be in monitorLeaves() when the manager
/// goes.
struct PeriodicTaskManager::ExitGate
{
    /// Sleeps as std::this_thread::sleep_for() does, but no longer than until the manager's end or `ended`,
    /// which is asked under the mutex.
    template <typename Ended>
    void sleep(std::unique_lock<std::mutex>& lock, milliseconds duration, Ended ended)
    {
        constexpr milliseconds kMostAtOnce =
            std::chrono::hours(1);  // the clock can't tell a time centuries ahead
        const auto over = [&] { return closing || ended(); };
        while (duration.count() > 0 && !over()) {
            const milliseconds piece = std::min(duration, kMostAtOnce);
            changed.wait_for(lock, piece, over);
            duration -= piece;
        }
    }

    void sleep(milliseconds duration)
    {
        std::unique_lock<std::mutex> lock(mutex);
        sleep(lock, duration, [] { return false; });
    }

    /// The monitor's first step: returns when who starts it is through with monitor_thread, which a function
    /// that calls exit() reads on its own thread.
    void monitorEnters() { const std::lock_guard<std::mutex> lock(mutex); }

    void monitorLeaves()
    {
        const std::lock_guard<std::mutex> lock(mutex);
        --monitors;
        changed.notify_all();
    }

    std::mutex mutex;                 // guards all below, WatchedRun and how a watched run ends; a leaf
    std::condition_variable changed;  // closing was set, monitors has sunk, or a watched run is over
    bool closing = false;             // the manager ends: nobody sleeps any more
    int monitors = 0;                 // threads that may still touch the manager
};

/// What a run shares with its watch; guarded by the gate's mutex. The task itself may be in its next run
/// already when a watch looks.
struct PeriodicTaskManager::WatchedRun
{
    bool over = false;
};

/// The process's manager, and how it ends with the process while its threads are at work, be they the
/// detached monitor, sleeping watches or functions: a host that forgot to stop the monitor must not crash in
/// exit(). So nothing is destroyed that a thread is still in. The end wakes what sleeps and waits for the
/// rest, briefly; if somebody is left inside after that, the manager stays as it is until the process is
/// gone. That holds also where a function calls exit(), which then never returns to its run, and in the child
/// of a fork, which has the manager but none of its threads, and its mutexes as they happened to be.
struct PeriodicTaskManager::Instance
{
    Instance() : manager() {}
    ~Instance()
    {
        if (getpid() == maker && manager.endThreads_l()) manager.~PeriodicTaskManager();
    }
    Instance(const Instance&) = delete;
    Instance& operator=(const Instance&) = delete;

    const pid_t maker = getpid();
    union {
        PeriodicTaskManager manager;  // in a union, so that it goes only where it is told to
    };
};

namespace
{
thread_local bool s_inside_run = false;  // of any manager; there is one
}

// Settled: no std::shared_ptr owns the pool, so every started run leaves its adapter in it, with a share in
// its record, until the manager goes. Memory grows with the number of runs.
PeriodicTaskManager::PeriodicTaskManager()
    : thread_pool(1, 32, 60, 0), exit_gate(std::make_shared<ExitGate>())
{}

PeriodicTaskManager::~PeriodicTaskManager()
{
    endThreads_l();  // of the process's own manager it is the second time, and finds nothing to do
}

bool PeriodicTaskManager::endThreads_l()
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
    const auto deadline =
        steady_clock::now() + std::chrono::seconds(1);  // a pass is short; a function may not be
    {
        std::unique_lock<std::mutex> lock(exit_gate->mutex);
        exit_gate->closing = true;
        monitor_running = false;  // a start may have come meanwhile
        exit_gate->changed.notify_all();
        if (!exit_gate->changed.wait_until(lock, deadline, [this] { return exit_gate->monitors == 0; }))
            return false;
    }
    // Only the pool knows when a thread is through with its adapter, and has no event with a deadline to wait
    // for.
    const int own = s_inside_run ? 1 : 0;
    while (thread_pool.used() > own && steady_clock::now() < deadline)
        std::this_thread::sleep_for(milliseconds(1));
    return thread_pool.used() == 0;
}

PeriodicTaskManager& PeriodicTaskManager::getInstance()
{
    static Instance instance;
    return instance.manager;
}

// Settled: the types of the arguments of log lines are part of the lines, also where Poco::format prints
// [ERRFMT] or a bare "lu" for them: people search for what is printed.

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
    task->task_id = next_task_id++;  // Settled: nothing guards the wrap after 2^32 - 1 registrations
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
    // Settled: "timout", and columns that aren't aligned: this is what readers of the listing know.
    stream << "task id   name  period    timout    status \n";
    const std::lock_guard<std::mutex> lock(tasks_mutex);
    for (const auto& entry : tasks) {
        const TaskContext& task = *entry.second;
        stream << task.task_id << "  " << task.task_name << "  " << task.task_period.count() << "ms  "
               << task.task_timeout.count() << "ms " << static_cast<int>(task.task_status.load())
               << std::endl;
    }
}

bool PeriodicTaskManager::callFunction_l(const std::shared_ptr<TaskContext>& task)
{
    try {
        task->task_func();
        return !task->task_abort && task->task_status != TASK_TIMEOUT;
    } catch (const std::exception& e) {
        KRO_LOG_ERROR("Task id: %d, execution failed: %s", task->task_id, e.what());
    } catch (...) {
        KRO_LOG_ERROR("Task id: %d, unknown execution error", task->task_id);
    }
    return !task->task_abort;
}

void PeriodicTaskManager::executeTask(const std::shared_ptr<TaskContext>& task)
{
    if (!callFunction_l(task)) return;
    // A cancel that comes just here is overwritten; the next run then finds task_abort and cancels once more.
    task->task_status = TASK_FINISHED;
    task->task_status = TASK_IDLE;
}

void PeriodicTaskManager::startPeriodMonitorTask()
{
    // Settled: nobody looks whether a former monitor still sleeps. It would go on, and the two share
    // due_tasks.
    const std::lock_guard<std::mutex> starting(exit_gate->mutex);
    if (exit_gate->closing) return;
    monitor_running = true;
    monitor_thread = std::thread([this, gate = exit_gate] {
        gate->monitorEnters();
        // Settled: nothing is caught here. A full pool, or anything else that a pass throws, ends the
        // process.
        while (monitor_running) monitorPeriodTasks();
        gate->monitorLeaves();  // from here on the manager may be gone
    });
    ++exit_gate->monitors;
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
    std::vector<steady_clock::time_point> former_runs;  // of due_tasks
    {
        const std::lock_guard<std::mutex> lock(tasks_mutex);
        for (const auto& entry : tasks) {
            TaskContext& task = *entry.second;
            // In whole milliseconds, which says the same of a whole period: a long one in nanoseconds
            // overflows.
            const auto waited = std::chrono::duration_cast<milliseconds>(now - task.task_last_run);
            if (task.task_status != TASK_IDLE || task.task_period > waited) continue;
            due_tasks.push_back(entry.second);
        }
        // Safeguard: who has waited longest comes first, or the last ones of the table would starve.
        if (safeguarded(kWaitForThread))
            std::sort(due_tasks.begin(), due_tasks.end(), [](const auto& one, const auto& other) {
                return one->task_last_run < other->task_last_run;
            });
        for (const auto& task : due_tasks) {
            former_runs.push_back(task->task_last_run);
            task->task_last_run = now;
            task->task_status = TASK_RUNNING;
        }
    }
    if (safeguarded(kWaitForThread))
        handOverWhileThereAreThreads_l(former_runs);
    else
        for (const auto& task : due_tasks) executeTaskWithTimeout(task);
    cleanUpTasks();
    adjustMonitorInterval();
    if (monitor_interval.count() >= 1) exit_gate->sleep(monitor_interval);
}

// Safeguard: what finds no thread is idle again, and as overdue as before. It costs a look at the pool for
// each hand-over.
void PeriodicTaskManager::handOverWhileThereAreThreads_l(
    const std::vector<steady_clock::time_point>& former_runs)
{
    std::size_t started = 0;
    try {
        // The pool logs a refusal as an error; what can be foreseen isn't one.
        for (; started < due_tasks.size() && thread_pool.available() > 0; ++started)
            executeTaskWithTimeout(due_tasks[started]);
    } catch (const Poco::Exception&) {  // a watch has taken the last thread, or the system has none to give
    }
    const bool none_left = started < due_tasks.size();
    if (none_left && !lacks_threads)
        KRO_LOG_WARNING("no thread for %d due tasks, they wait for the next pass",
                        static_cast<int>(due_tasks.size() - started));
    lacks_threads = none_left;
    const std::lock_guard<std::mutex> lock(tasks_mutex);
    for (; started < due_tasks.size(); ++started) {
        TaskContext& task = *due_tasks[started];
        task.task_last_run = former_runs[started];
        TaskStatus expected = TASK_RUNNING;  // it may have been cancelled
        task.task_status.compare_exchange_strong(expected, TASK_IDLE);
    }
}

void PeriodicTaskManager::executeTaskWithTimeout(const std::shared_ptr<TaskContext>& task)
{
    thread_pool.startWithPriority([this, task] { run_l(task); }, task->task_name, false);
}

void PeriodicTaskManager::run_l(const std::shared_ptr<TaskContext>& task)
{
    if (task->task_abort || task->task_status == TASK_CANCELLED) {
        task->task_status = TASK_CANCELLED;
        return;
    }
    {
        // A late watch of a former run may be reading it.
        const std::lock_guard<std::mutex> lock(tasks_mutex);
        task->task_exec_start = steady_clock::now();
    }
    std::shared_ptr<WatchedRun> run;
    if (task->task_timeout.count() > 0) {
        if (safeguarded(kWatchTimeouts)) run = std::make_shared<WatchedRun>();
        startWatch_l(task, run);
    }
    s_inside_run = true;
    if (run)
        executeWatched_l(task, *run);
    else
        executeTask(task);
    s_inside_run = false;
}

void PeriodicTaskManager::startWatch_l(const std::shared_ptr<TaskContext>& task,
                                       const std::shared_ptr<WatchedRun>& run)
{
    try {
        timeoutMonitor(task, run);
    } catch (const Poco::Exception& e) {
        // Settled: the exception ends this run before its function was called; the task stays TASK_RUNNING
        // and is never due again.
        if (!safeguarded(kWaitForThread)) throw;
        KRO_LOG_WARNING("Task id: %d, runs unwatched: %s", static_cast<int>(task->task_id), e.displayText());
    }
}

void PeriodicTaskManager::executeWatched_l(const std::shared_ptr<TaskContext>& task, WatchedRun& run)
{
    const bool goes_on = callFunction_l(task);
    const std::lock_guard<std::mutex> lock(exit_gate->mutex);
    run.over = true;
    exit_gate->changed.notify_all();
    TaskStatus expected = TASK_RUNNING;  // a time-out or a cancel that came just before stays
    if (!goes_on || !task->task_status.compare_exchange_strong(expected, TASK_FINISHED)) return;
    task->task_status = TASK_IDLE;
    if (task->task_abort) task->task_status = TASK_CANCELLED;  // by a cancel in between
}

void PeriodicTaskManager::timeoutMonitor(const std::shared_ptr<TaskContext>& task,
                                         std::shared_ptr<WatchedRun> run)
{
    thread_pool.startWithPriority(
        [this, task, run = std::move(run)] {
            if (run)
                watchToTheEnd_l(task, *run);
            else
                watch_l(task);
        },
        "monitor task", true);
}

// Safeguard: looks at the time-out, and is gone with the run. It costs a wake of every sleeping watch at the
// end of each watched run.
void PeriodicTaskManager::watchToTheEnd_l(const std::shared_ptr<TaskContext>& task, const WatchedRun& run)
{
    steady_clock::time_point started;
    {
        const std::lock_guard<std::mutex> lock(tasks_mutex);
        started = task->task_exec_start;
    }
    const auto elapsed = std::chrono::duration_cast<milliseconds>(steady_clock::now() - started);
    {
        std::unique_lock<std::mutex> lock(exit_gate->mutex);
        exit_gate->sleep(lock, task->task_timeout - elapsed, [&run] { return run.over; });
        if (run.over || exit_gate->closing) return;
        TaskStatus expected = TASK_RUNNING;
        if (!task->task_status.compare_exchange_strong(expected, TASK_TIMEOUT)) return;  // cancelled
        task->task_abort = true;
    }
    const long timeout_ms = task->task_timeout.count();
    KRO_LOG_ERROR("Task id: %d, timeout: %llu - will be deleted", task->task_id, timeout_ms);
}

void PeriodicTaskManager::watch_l(const std::shared_ptr<TaskContext>& task)
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
