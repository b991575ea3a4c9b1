#ifndef KRO_PERIODIC_TASK_MANAGER_H
#define KRO_PERIODIC_TASK_MANAGER_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "KroApi.h"
#include "ThreadPool.h"

namespace kro
{

/// What a task is doing. The numbers are those of the listing.
enum TaskStatus : std::int32_t
{
    TASK_IDLE = 0,       ///< waits for its period to run out
    TASK_RUNNING = 1,    ///< handed to the pool, or executing
    TASK_FINISHED = 2,   ///< a run has just ended; TASK_IDLE follows at once
    TASK_TIMEOUT = 3,    ///< a run was found to be late; never runs again, but stays listed
    TASK_CANCELLED = 4,  ///< goes at the monitor's next pass
    TASK_NOT_FOUND = 5   ///< the answer for an unknown id
};

/// The record of one task. Runs share it with the table, so it outlives its removal while one is under way.
struct TaskContext
{
    unsigned int task_id = 0;                             ///< from 1 up
    std::chrono::milliseconds task_period{0};             ///< at least 1
    std::function<void()> task_func;                      ///< called by one thread at a time
    std::chrono::milliseconds task_timeout{0};            ///< of one run; 0 or less for none
    std::atomic<TaskStatus> task_status{TASK_IDLE};       ///< read and written by pool threads without a lock
    std::atomic<bool> task_abort{false};                  ///< likewise; set for good at an end, never cleared
    std::chrono::steady_clock::time_point task_last_run;  ///< of the last hand-over; guarded by tasks_mutex
    std::chrono::steady_clock::time_point task_exec_start;  ///< of the last run; guarded by tasks_mutex
    std::string task_name;                                  ///< for the listing and the pool's thread
};

/// Runs functions again and again, each at its own period, on a pool of up to 32 threads: the process's one
/// table of periodic tasks.
///
///     auto& manager = kro::PeriodicTaskManager::getInstance();
///     std::string name = "heartbeat";
///     const unsigned int id = manager.registerTask(name, 10s, [] { beat(); }, 0ms);
///     manager.startPeriodMonitorTask();
///     ...
///     manager.cancelTask(id);
///     manager.stopPeriodMonitorTask();  // and a monitor interval later its thread has ended
///
/// One thread, the monitor, wakes ten times in the shortest period (every 10 ms at least, every 2 s at most)
/// and hands each task whose period has run out since its last hand-over to the pool. So a run is late by up
/// to one such interval; a task that takes longer than its period runs again at the first pass after it has
/// returned, never beside itself, and what was missed is not made up.
///
/// All operations may be called from any thread, a task's function included. A function may throw: that is
/// logged, and it runs again at its next period.
///
/// Limits to plan with, where no safeguard lifts them. More than 32 runs at a time end the process, and a run
/// with a time-out takes two threads, the second one for the whole time-out. If that second thread isn't to
/// be had, the run is lost: the function isn't called, the refusal is logged, and the task stays TASK_RUNNING
/// for ever and never runs again. Every run leaves some hundred bytes behind until the process ends. With
/// kWaitForThread a due task waits for a thread, the longest overdue first, and a run whose watch finds none
/// goes unwatched; with kWatchTimeouts a time-out is declared when it is over, and the second thread is free
/// when the run ends.
class KRO_API PeriodicTaskManager : public std::enable_shared_from_this<PeriodicTaskManager>
{
public:
    /// The first call makes the manager; nothing runs before startPeriodMonitorTask(). It ends with the
    /// process, so make what the functions use before it. exit() may come at any moment, also from a
    /// function: it starts nothing any more, ends the sleep of the monitor and of watches, and waits for
    /// functions that are running, 1 s for all of them. With nothing running it costs no noticeable time.
    /// Where a function still runs after that, the manager is not destroyed, and the function goes on beside
    /// what is left of exit(). Nor is it destroyed in the child of a fork, where its threads don't exist and
    /// nothing runs.
    /// @return the process's one manager.
    static PeriodicTaskManager& getInstance();
    PeriodicTaskManager(const PeriodicTaskManager&) = delete;
    PeriodicTaskManager& operator=(const PeriodicTaskManager&) = delete;

    /// Adds a task; its first run comes one period from now.
    /// @param name     for the listing and the pool's thread; need not be unique.
    /// @param period   at least 1 ms, from one hand-over to the next.
    /// @param func     runs on a pool thread, never twice at a time.
    /// @param timeout  of one run; 0 or less for none. Without kWatchTimeouts it is looked at once, when a run
    ///                 begins: only if the watch gets its thread after the time-out has passed is the run found
    ///                 to be late, and its task never runs again. The function goes on in any case.
    /// @return the task's id, from 1 up; 0 if the period or the function is refused, which is logged.
    /// @throws std::system_error if the table's mutex can't be locked.
    unsigned int registerTask(std::string& name, std::chrono::milliseconds period, std::function<void()> func,
                              std::chrono::milliseconds timeout);

    /// Ends a task: it isn't started again, and leaves the table at the monitor's next pass (one that was found
    /// late stays there). A run under way
    /// goes on to its end. Cancel once: a second call before that pass makes the monitor forget the period of
    /// another task with an equal one, and perhaps wake too seldom for it.
    /// @return true if the id was in the table.
    bool cancelTask(unsigned int task_id);

    /// @return the task's state; TASK_NOT_FOUND for an unknown id, which is logged.
    TaskStatus getTaskStatus(unsigned int task_id) const;

    /// @return the tasks in the table, cancelled ones included until the monitor's next pass.
    std::size_t getTaskCount() const;

    /// Appends a line of headings, and one line for each task in no order: id, name, period and time-out in
    /// ms, and the state's number, as in "7  x  1000ms  0ms 0".
    void showAllTaskInfo(std::stringstream& stream);

    /// One run of a task, on the calling thread. The manager calls it on its pool threads; a host has no need
    /// to. Whatever the function throws is logged.
    void executeTask(const std::shared_ptr<TaskContext>& task);

    /// Starts the monitor. After stopPeriodMonitorTask(), let one monitor interval (2 s at most) pass first:
    /// the old monitor may still sleep, and two of them get into each other's way. Call it once.
    void startPeriodMonitorTask();

    /// Tells the monitor to end and returns at once; it ends after its pass and its sleep, 2 s at most and a
    /// tenth of the shortest period as a rule. Runs under way go on. Before deleteLogger(), stop the monitor
    /// and let that time pass: its pass may log.
    void stopPeriodMonitorTask();

private:
    struct ExitGate;
    struct Instance;
    struct WatchedRun;

    PeriodicTaskManager();
    ~PeriodicTaskManager();

    void monitorPeriodTasks();                                              // one pass, on the monitor thread
    void executeTaskWithTimeout(const std::shared_ptr<TaskContext>& task);  // hands a run to the pool
    void run_l(const std::shared_ptr<TaskContext>& task);  // on a pool thread; takes tasks_mutex
    /// Calls the function. @return false if the task's state is not to change after it.
    bool callFunction_l(const std::shared_ptr<TaskContext>& task);
    void startWatch_l(const std::shared_ptr<TaskContext>& task, const std::shared_ptr<WatchedRun>& run);
    void executeWatched_l(const std::shared_ptr<TaskContext>& task,
                          WatchedRun& run);  // takes the gate's mutex
    /// Hands a watch to the pool; with a `run` it is one that looks again.
    void timeoutMonitor(const std::shared_ptr<TaskContext>& task, std::shared_ptr<WatchedRun> run = nullptr);
    void watch_l(const std::shared_ptr<TaskContext>& task);  // on a pool thread; takes tasks_mutex
    /// On a pool thread; takes tasks_mutex, then the gate's.
    void watchToTheEnd_l(const std::shared_ptr<TaskContext>& task, const WatchedRun& run);
    /// Of due_tasks, with the hand-overs before this pass. Takes tasks_mutex.
    void handOverWhileThereAreThreads_l(
        const std::vector<std::chrono::steady_clock::time_point>& former_runs);
    void cleanUpTasks();
    void adjustMonitorInterval();
    /// Ends all runs and sleeps, and waits for the threads; may be repeated. Takes tasks_mutex and the
    /// gate's.
    /// @return true if no thread but the caller's is in the manager, and the caller's is in none of its runs.
    bool endThreads_l();

    friend struct PeriodicTaskManagerTestAccess;

    ThreadPool thread_pool;
    std::unordered_map<unsigned int, std::shared_ptr<TaskContext>> tasks;  // by id
    // Guards tasks, task_periods and the times of records; held while logging. No call to the pool under it.
    mutable std::mutex tasks_mutex;
    std::atomic<unsigned int> next_task_id{1};        // taken before the lock
    std::chrono::milliseconds monitor_interval{500};  // of the monitor thread alone
    std::thread monitor_thread;                       // detached as soon as it is started
    std::atomic<bool> monitor_running{true};          // the only link to the detached thread
    std::multiset<unsigned long> task_periods;        // of live tasks, in ms, so that the shortest is at hand
    std::vector<std::shared_ptr<TaskContext>> due_tasks;  // of the monitor thread alone, so needs no lock
    bool lacks_threads = false;  // of the monitor thread alone: the last pass left due tasks without one
    const std::shared_ptr<ExitGate> exit_gate;  // what the threads share with the destructor
};

}  // namespace kro

#endif
