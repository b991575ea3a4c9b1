#include "PeriodicTaskManager.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <future>
#include <stdexcept>

#include "support/Eventually.h"
#include "support/LogCapture.h"
#include "support/WithSafeguards.h"

namespace kro
{
struct PeriodicTaskManagerTestAccess
{
    struct Delete
    {
        void operator()(PeriodicTaskManager* manager) const
        {
            EXPECT_TRUE(test::eventually([&] { return manager->endThreads_l(); }));
            delete manager;
        }
    };
    static PeriodicTaskManager* make() { return new PeriodicTaskManager; }
    static ThreadPool& pool(PeriodicTaskManager& manager) { return manager.thread_pool; }
    static std::multiset<unsigned long>& periods(PeriodicTaskManager& manager)
    {
        return manager.task_periods;
    }
    static void setNextId(PeriodicTaskManager& manager, unsigned int id) { manager.next_task_id = id; }
    /// The monitors that have not ended: each has a share in the gate.
    static long monitors(PeriodicTaskManager& manager) { return manager.exit_gate.use_count() - 1; }
    static auto interval(PeriodicTaskManager& manager) { return manager.monitor_interval.count(); }
    static std::shared_ptr<TaskContext> record(PeriodicTaskManager& manager, unsigned int id)
    {
        const std::lock_guard<std::mutex> lock(manager.tasks_mutex);
        return manager.tasks.at(id);
    }
    static void pass(PeriodicTaskManager& manager) { manager.monitorPeriodTasks(); }
    static void handOver(PeriodicTaskManager& manager, const std::shared_ptr<TaskContext>& task)
    {
        manager.executeTaskWithTimeout(task);
    }
    static void watch(PeriodicTaskManager& manager, const std::shared_ptr<TaskContext>& task)
    {
        manager.timeoutMonitor(task);
    }
    static void cleanUp(PeriodicTaskManager& manager) { manager.cleanUpTasks(); }
    static void adjust(PeriodicTaskManager& manager) { manager.adjustMonitorInterval(); }
};

namespace
{
using namespace std::chrono_literals;
using test::LogCapture;
using test::WithSafeguards;
using Access = PeriodicTaskManagerTestAccess;
using Periods = std::multiset<unsigned long>;

unsigned int add(PeriodicTaskManager& manager, std::chrono::milliseconds period, std::function<void()> func,
                 std::chrono::milliseconds timeout = 0ms)
{
    std::string name = "x";
    return manager.registerTask(name, period, std::move(func), timeout);
}

class PeriodicTaskManagerTest : public testing::Test
{
protected:
    PeriodicTaskManagerTest() { LogCapture::instance().clear(); }
    ~PeriodicTaskManagerTest() override { release(); }

    /// Lets everything end that waits for `released`.
    void release()
    {
        if (!open) gate.set_value();
        open = true;
    }
    /// Makes a task due, whatever its period.
    void makeDue(unsigned int id)
    {
        const auto task = Access::record(*manager, id);
        task->task_last_run -= task->task_period;
    }
    /// Lets passes sleep for 10 ms only.
    void hurry() { Access::periods(*manager).insert(1); }
    bool poolUses(int threads)
    {
        return test::eventually([&] { return Access::pool(*manager).used() == threads; });
    }
    bool idlePool() { return poolUses(0); }
    void occupy(int threads, const std::shared_future<void>& until)
    {
        for (int i = 0; i < threads; ++i) Access::pool(*manager).start([until] { until.wait(); });
    }
    static std::vector<test::LogLine> lines() { return LogCapture::instance().lines(); }

    const std::unique_ptr<PeriodicTaskManager, Access::Delete> manager{Access::make()};
    std::promise<void> gate;
    const std::shared_future<void> released = gate.get_future().share();
    bool open = false;
};

TEST_F(PeriodicTaskManagerTest, CountsIdsFromOneAndUsesNoneForARefusal)
{
    EXPECT_EQ(add(*manager, 5ms, [] {}), 1u);
    for (const auto refused : {0ms, -1ms}) EXPECT_EQ(add(*manager, refused, [] {}), 0u);
    EXPECT_EQ(add(*manager, 5ms, {}), 0u);
    EXPECT_EQ(add(*manager, 1ms, [] {}), 2u) << "the shortest period there is, and a name that exists";
    EXPECT_EQ(manager->getTaskCount(), 2u);
    const auto registered = test::information("registerTask task name: x, period: lu count: [ERRFMT]");
    const auto refused = test::error("period error period: lu");
    EXPECT_EQ(lines(),
              (std::vector{registered, refused, refused, test::error("task Func is nullptr!"), registered}))
        << "as the prescribed argument types print";
}

TEST_F(PeriodicTaskManagerTest, KeepsACancelledTaskUntilTheCleanUp)
{
    const unsigned int id = add(*manager, 5ms, [] {});
    LogCapture::instance().clear();
    EXPECT_FALSE(manager->cancelTask(id + 1));
    EXPECT_TRUE(lines().empty());
    EXPECT_TRUE(manager->cancelTask(id));
    EXPECT_EQ(manager->getTaskStatus(id), TASK_CANCELLED);
    EXPECT_EQ(manager->getTaskCount(), 1u);
    Access::cleanUp(*manager);
    EXPECT_EQ(manager->getTaskCount(), 0u);
    EXPECT_EQ(manager->getTaskStatus(id), TASK_NOT_FOUND);
    EXPECT_FALSE(manager->cancelTask(id));
    EXPECT_EQ(lines(), (std::vector{test::information("cancelTask id: [ERRFMT], period: lu, count: lu"),
                                    test::error("Task ID [lu] not found!")}));
    const unsigned int first = add(*manager, 5ms, [] {});
    for (const auto period : {5ms, 5ms, 7ms}) add(*manager, period, [] {});
    for (const Periods& left : {Periods{5, 5, 7}, Periods{5, 7}, Periods{7}, Periods{7}}) {
        EXPECT_TRUE(manager->cancelTask(first));
        EXPECT_EQ(Access::periods(*manager), left) << "a second cancel erases the period of another task";
    }
}

TEST_F(PeriodicTaskManagerTest, ListsToTheByte)
{
    Access::setNextId(*manager, 7);
    std::string name = "a b";
    manager->registerTask(
        name, 1000ms, [] {}, -1ms);
    manager->cancelTask(7);
    std::stringstream listing;
    listing << "before ";
    manager->showAllTaskInfo(listing);
    EXPECT_EQ(listing.str(), "before task id   name  period    timout    status \n7  a b  1000ms  -1ms 4\n");
}

TEST_F(PeriodicTaskManagerTest, LogsWhatAFunctionThrowsAndKeepsTheTaskScheduled)
{
    const std::vector<std::function<void()>> functions{[] {}, [] { throw std::runtime_error("why"); },
                                                       [] { throw 5; }};
    for (const auto& function : functions) {
        const auto task = Access::record(*manager, add(*manager, 5ms, function));
        for (const TaskStatus before : {TASK_RUNNING, TASK_CANCELLED, TASK_TIMEOUT}) {
            task->task_status = before;
            task->task_abort = before != TASK_RUNNING;
            manager->executeTask(task);
            EXPECT_EQ(task->task_status, before == TASK_RUNNING ? TASK_IDLE : before);
        }
    }
    EXPECT_EQ(LogCapture::instance().count(test::error("Task id: [ERRFMT], execution failed: [ERRFMT]")), 3u);
    EXPECT_EQ(LogCapture::instance().count(test::error("Task id: [ERRFMT], unknown execution error")), 3u);
}

TEST_F(PeriodicTaskManagerTest, HandsOverWhatIsDueAndNothingTwiceAtATime)
{
    std::atomic<int> runs{0};
    const unsigned int due = add(*manager, 1h, [&] { ++runs, released.wait(); });
    const unsigned int early = add(*manager, 1h, [] { ADD_FAILURE() << "its period is not over"; });
    const unsigned int endless = add(*manager, std::chrono::milliseconds::max(), [] {});
    Access::record(*manager, early)->task_last_run -= 59min;
    hurry();
    makeDue(due);
    Access::pass(*manager);
    EXPECT_TRUE(test::eventually([&] { return runs == 1; }));
    EXPECT_EQ(manager->getTaskStatus(due), TASK_RUNNING);
    makeDue(due);
    Access::pass(*manager);
    EXPECT_EQ(Access::pool(*manager).used(), 1) << "a task that runs is skipped";
    release();
    EXPECT_TRUE(test::eventually([&] { return manager->getTaskStatus(due) == TASK_IDLE; }));
    for (int i = 0; i < 3; ++i) Access::pass(*manager);
    ASSERT_TRUE(idlePool());
    EXPECT_EQ(runs, 2) << "what was missed is not made up";
    EXPECT_EQ(manager->getTaskStatus(early), TASK_IDLE);
    EXPECT_EQ(manager->getTaskStatus(endless), TASK_IDLE);
}

TEST_F(PeriodicTaskManagerTest, LetsARunThatIsCancelledEndAndForgetsItsTask)
{
    for (const unsigned bits : {0u, unsigned{kWatchTimeouts}}) {
        const WithSafeguards guarded(bits);
        std::promise<void> began;
        std::promise<void> end;
        const unsigned int id = add(
            *manager, 1h, [&] { began.set_value(), end.get_future().wait(); }, bits == 0 ? 0ms : 1h);
        const auto task = Access::record(*manager, id);
        task->task_status = TASK_RUNNING;
        Access::handOver(*manager, task);
        began.get_future().wait();
        manager->cancelTask(id);
        end.set_value();
        ASSERT_TRUE(idlePool());
        Access::handOver(*manager, task);  // had it been cancelled before it began: must not run
        ASSERT_TRUE(idlePool());
        EXPECT_EQ(manager->getTaskStatus(id), TASK_CANCELLED);
        Access::cleanUp(*manager);
        EXPECT_EQ(manager->getTaskCount(), 0u);
    }
}

TEST_F(PeriodicTaskManagerTest, TakesATenthOfTheShortestPeriodAndLogsByItsRule)
{
    const struct
    {
        std::vector<unsigned long> periods;
        long interval_ms;
        std::size_t lines_in_three_passes;
    } rows[] = {{{}, 2000, 3},           {{50}, 10, 3},      {{99}, 10, 3},      {{100}, 10, 1},
                {{1000, 40000}, 100, 1}, {{20009}, 2000, 1}, {{20010}, 2000, 3}, {{30000, 30000}, 2000, 3},
                {{5000}, 500, 0}};
    for (const auto& row : rows) {
        const std::unique_ptr<PeriodicTaskManager, Access::Delete> fresh(Access::make());
        Access::periods(*fresh).insert(row.periods.begin(), row.periods.end());
        LogCapture::instance().clear();
        for (int i = 0; i < 3; ++i) Access::adjust(*fresh);
        EXPECT_EQ(Access::interval(*fresh), row.interval_ms);
        EXPECT_EQ(LogCapture::instance().count(test::information("Adjust monitor interval to lu ms")),
                  row.lines_in_three_passes)
            << "interval " << row.interval_ms;
    }
}

TEST_F(PeriodicTaskManagerTest, DeclaresATimeOutOfARunThatIsWatchedInTimeOnlyWhenAsked)
{
    const struct
    {
        unsigned bits;
        TaskStatus at_time_out;
        TaskStatus afterwards;
    } rows[] = {{0, TASK_RUNNING, TASK_IDLE}, {kWatchTimeouts, TASK_TIMEOUT, TASK_TIMEOUT}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.bits);
        const WithSafeguards guarded(row.bits);
        std::promise<void> end;
        const unsigned int id = add(
            *manager, 1h, [&] { end.get_future().wait(); }, 1s);
        LogCapture::instance().clear();
        hurry();
        makeDue(id);
        Access::pass(*manager);
        ASSERT_TRUE(poolUses(2));
        ASSERT_TRUE(poolUses(1)) << "the watch has ended";
        EXPECT_EQ(manager->getTaskStatus(id), row.at_time_out);
        end.set_value();
        ASSERT_TRUE(idlePool());
        EXPECT_EQ(manager->getTaskStatus(id), row.afterwards);
        EXPECT_EQ(LogCapture::instance().has(test::error("Task id: [ERRFMT], timeout: lu - will be deleted")),
                  row.bits != 0);
    }
}

TEST_F(PeriodicTaskManagerTest, EndsAWatchWithItsRunAndJudgesNoOtherRunByIt)
{
    const WithSafeguards guarded(kWatchTimeouts);
    std::atomic<int> runs{0};
    const unsigned int id = add(
        *manager, 1h, [&] { ++runs; }, 24h);
    hurry();
    for (int run = 1; run <= 40; ++run) {  // more than there are threads to be held for a day
        makeDue(id);
        Access::pass(*manager);
        ASSERT_TRUE(idlePool());
        EXPECT_EQ(runs, run);
        EXPECT_EQ(manager->getTaskStatus(id), TASK_IDLE);
    }
}

TEST_F(PeriodicTaskManagerTest, KeepsATaskThatTimedOutInTheTableForGood)
{
    const unsigned int id = add(
        *manager, 7ms, [] {}, 20ms);
    const auto task = Access::record(*manager, id);
    LogCapture::instance().clear();
    task->task_status = TASK_RUNNING;
    task->task_exec_start = std::chrono::steady_clock::now() - 20ms;  // so the watch comes too late
    Access::watch(*manager, task);
    ASSERT_TRUE(idlePool());
    EXPECT_EQ(lines(), std::vector{test::error("Task id: [ERRFMT], timeout: lu - will be deleted")});
    EXPECT_TRUE(task->task_abort);
    manager->executeTask(task);
    EXPECT_EQ(manager->getTaskStatus(id), TASK_TIMEOUT) << "the run that goes on leaves the state";
    makeDue(id);
    Access::pass(*manager);
    ASSERT_TRUE(idlePool());
    EXPECT_EQ(Access::periods(*manager), Periods{7});
    EXPECT_TRUE(manager->cancelTask(id));
    EXPECT_EQ(Access::periods(*manager), Periods{});
    Access::cleanUp(*manager);
    EXPECT_EQ(manager->getTaskStatus(id), TASK_TIMEOUT);
}

TEST_F(PeriodicTaskManagerTest, LosesATaskWhoseWatchIsRefusedUnlessItMayRunUnwatched)
{
    for (const unsigned bits : {0u, unsigned{kWaitForThread}}) {
        SCOPED_TRACE(bits);
        const WithSafeguards guarded(bits);
        std::atomic<int> runs{0};
        const unsigned int id = add(
            *manager, 1h, [&] { ++runs; }, 1h);
        std::promise<void> end;
        occupy(31, end.get_future().share());
        LogCapture::instance().clear();
        hurry();
        makeDue(id);
        Access::pass(*manager);
        ASSERT_TRUE(poolUses(31));
        EXPECT_TRUE(LogCapture::instance().has(test::error("exception: No thread available")));
        EXPECT_EQ(LogCapture::instance().has(test::error("No thread available")), bits == 0);
        EXPECT_EQ(LogCapture::instance().countPrefix("Task id: "), bits == 0 ? 0u : 1u);
        end.set_value();
        ASSERT_TRUE(idlePool());
        EXPECT_EQ(runs, bits == 0 ? 0 : 1);
        EXPECT_EQ(manager->getTaskStatus(id), bits == 0 ? TASK_RUNNING : TASK_IDLE);
    }
}

TEST_F(PeriodicTaskManagerTest, KeepsWhatFindsNoThreadDueAndHandsItOverByTheLengthOfItsWait)
{
    const WithSafeguards guarded(kWaitForThread);
    std::string order;  // one pool thread at a time runs what writes to it
    std::vector<unsigned int> ids;
    for (char name = 'a'; name < 'd'; ++name) {
        ids.push_back(add(*manager, 1h, [&order, name] { order += name; }));
        Access::record(*manager, ids.back())->task_last_run -= 1h + 1min * (name - 'a');
    }
    const auto task = Access::record(*manager, ids[0]);
    const auto last_run = task->task_last_run;
    occupy(32, released);
    hurry();
    for (int i = 0; i < 2; ++i) Access::pass(*manager);
    EXPECT_EQ(LogCapture::instance().countPrefix("no thread for "), 1u) << "told once";
    EXPECT_EQ(LogCapture::instance().countPrefix("exception: "), 0u);
    for (const auto id : ids) EXPECT_EQ(manager->getTaskStatus(id), TASK_IDLE);
    EXPECT_EQ(task->task_last_run, last_run);
    release();
    ASSERT_TRUE(idlePool());
    std::promise<void> end;
    occupy(31, end.get_future().share());
    for (int i = 0; i < 3; ++i) {
        Access::pass(*manager);
        ASSERT_TRUE(poolUses(31));
    }
    end.set_value();
    EXPECT_EQ(order, "cba");
}

TEST_F(PeriodicTaskManagerTest, RunsFromStartToStopAndAgain)
{
    std::atomic<int> runs{0};
    std::atomic<int> inside{0};
    const auto once_at_a_time = [&] {
        EXPECT_EQ(++inside, 1);
        std::this_thread::sleep_for(3ms);
        --inside;
        ++runs;
    };
    const unsigned int id = add(*manager, 1ms, once_at_a_time);
    for (int round = 0; round < 2; ++round) {
        runs = 0;
        manager->startPeriodMonitorTask();
        EXPECT_TRUE(test::eventually([&] { return runs >= 5; }));
        manager->stopPeriodMonitorTask();
        EXPECT_TRUE(test::eventually([&] { return Access::monitors(*manager) == 0; }));
        EXPECT_TRUE(test::eventually([&] { return manager->getTaskStatus(id) == TASK_IDLE; }));
    }
}

TEST_F(PeriodicTaskManagerTest, LetsFunctionsCallBackAndDropsTheirCapturesOutsideItsLock)
{
    auto calls_back = std::shared_ptr<int>(new int, [this](const int* number) {
        delete number;
        manager->getTaskCount();
    });
    const unsigned int id = add(*manager, 1h, [calls = std::move(calls_back)] {});
    manager->cancelTask(id);
    std::atomic<unsigned int> own{0};
    own = add(*manager, 1ms, [&] { EXPECT_TRUE(manager->cancelTask(own)); });
    Access::cleanUp(*manager);
    manager->startPeriodMonitorTask();
    EXPECT_TRUE(test::eventually([&] { return manager->getTaskCount() == 0; }));
}

TEST(PeriodicTaskManagerDeathTest, EndsTheProcessWhenThePoolIsFull)
{
    const auto overload = [] {
        auto& manager = PeriodicTaskManager::getInstance();
        for (int i = 0; i < 33; ++i) add(manager, 1ms, [] { pause(); });
        manager.startPeriodMonitorTask();
        pause();
    };
    EXPECT_EXIT(overload(), testing::KilledBySignal(SIGABRT), "NoThreadAvailable");
}

// A host that forgets to stop the monitor, and ends at any moment of its passes, sleeps, runs and watches.
TEST(PeriodicTaskManagerDeathTest, ExitsCleanlyWhileTheMonitorIsAtWork)
{
    for (int i = 0; i < 30; ++i) {
        const auto work_and_exit = [i] {
            auto& manager = PeriodicTaskManager::getInstance();
            for (int t = 0; t < 6; ++t) add(manager, 1ms, [] { std::this_thread::sleep_for(300us); });
            add(manager, 2ms, [] { throw std::runtime_error("at exit too"); });
            static std::atomic<unsigned int> watched{0};  // its one run leaves a watch that sleeps for a day
            const auto once = [] {
                std::this_thread::sleep_for(3ms);
                PeriodicTaskManager::getInstance().cancelTask(watched);
            };
            watched = add(manager, 1ms, once, 24h);
            manager.startPeriodMonitorTask();
            std::this_thread::sleep_for(std::chrono::microseconds(i * 731));
            std::exit(0);
        };
        EXPECT_EXIT(work_and_exit(), testing::ExitedWithCode(0), "");
    }
}

/// Runs `function` under the monitor. Whatever hangs in the process from then on is killed.
void runOne(void (*function)())
{
    alarm(60);
    add(PeriodicTaskManager::getInstance(), 1ms, function);
    PeriodicTaskManager::getInstance().startPeriodMonitorTask();
}

TEST(PeriodicTaskManagerDeathTest, ExitsCleanlyFromWithinATaskAndBesideOneThatNeverReturns)
{
    const auto exit_inside = [] {
        runOne([] { std::exit(7); });
        pause();
    };
    EXPECT_EXIT(exit_inside(), testing::ExitedWithCode(7), "");
    static std::atomic<bool> s_began{false};
    const auto exit_beside = [] {
        runOne([] {
            s_began = true;
            for (;;) pause();
        });
        std::exit(test::eventually([] { return s_began.load(); }) ? 0 : 1);
    };
    EXPECT_EXIT(exit_beside(), testing::ExitedWithCode(0), "");
}

TEST(PeriodicTaskManagerDeathTest, LetsAForkedChildExitWithoutItsThreads)
{
    const auto fork_and_exit = [] {
        LogCapture::instance().clear();
        PeriodicTaskManager::getInstance().startPeriodMonitorTask();
        test::eventually([] { return !LogCapture::instance().lines().empty(); });  // then it sleeps for 2 s
        std::this_thread::sleep_for(10ms);  // a fork may strike the sanitizers' allocators at their work
        const pid_t child = fork();
        if (child == 0) {
            alarm(15);
            std::exit(0);
        }
        int status = -1;
        waitpid(child, &status, 0);
        std::exit(status == 0 ? 0 : 1);
    };
    EXPECT_EXIT(fork_and_exit(), testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace kro
