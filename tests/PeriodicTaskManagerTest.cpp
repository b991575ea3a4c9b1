#include "PeriodicTaskManager.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <future>
#include <stdexcept>
#include <tuple>

#include "support/Eventually.h"
#include "support/InChild.h"
#include "support/LogCapture.h"
#include "support/WithSafeguards.h"

namespace kro
{
using namespace std::chrono_literals;
using std::chrono::milliseconds;
using test::LogCapture;
using test::WithSafeguards;
using Periods = std::multiset<unsigned long>;

/// A manager of its own for each test; the monitor's steps are called on the test's thread.
struct PeriodicTaskManagerTestAccess : testing::Test
{
    PeriodicTaskManagerTestAccess()
    {
        log.clear();
        periods.insert(1);  // so that a pass sleeps for 10 ms only
    }
    ~PeriodicTaskManagerTestAccess() override
    {
        EXPECT_TRUE(test::eventually([&] { return manager->endThreads_l(); }));
        delete manager;
    }

    std::shared_ptr<TaskContext> record(unsigned int id) { return manager->tasks.at(id); }
    /// @param due  a task whose period is over; none if 0.
    void pass(unsigned int due = 0)
    {
        if (due != 0) record(due)->task_last_run -= record(due)->task_period;
        manager->monitorPeriodTasks();
    }
    void handOver(const std::shared_ptr<TaskContext>& task) { manager->executeTaskWithTimeout(task); }
    void watch(const std::shared_ptr<TaskContext>& task) { manager->timeoutMonitor(task); }
    void adjust() { manager->adjustMonitorInterval(); }
    /// The monitors that have not ended: each has a share in the gate.
    long monitors() const { return manager->exit_gate.use_count() - 1; }
    bool poolUses(int threads)
    {
        return test::eventually([&] { return pool.used() == threads; });
    }
    void occupy(int threads, const std::shared_future<void>& until)
    {
        for (int i = 0; i < threads; ++i) pool.start([until] { until.wait(); });
    }

    PeriodicTaskManager* const manager = new PeriodicTaskManager;
    ThreadPool& pool = manager->thread_pool;
    Periods& periods = manager->task_periods;
    milliseconds& interval = manager->monitor_interval;
    LogCapture& log = LogCapture::instance();
};

namespace
{
using PeriodicTaskManagerTest = PeriodicTaskManagerTestAccess;

/// Opens at its end too, so that nothing waits for it longer than its test lasts.
struct Gate
{
    void open() { promise.set_value(); }

    std::promise<void> promise;
    const std::shared_future<void> opened = promise.get_future().share();
};

unsigned int add(PeriodicTaskManager& manager, milliseconds period, milliseconds timeout,
                 std::function<void()> func)
{
    std::string name = "x";
    return manager.registerTask(name, period, std::move(func), timeout);
}

TEST_F(PeriodicTaskManagerTest, CountsIdsFromOneUsesNoneForARefusalAndListsToTheByte)
{
    for (const auto refused : {0ms, -1ms}) EXPECT_EQ(add(*manager, refused, 0ms, [] {}), 0u);
    EXPECT_EQ(add(*manager, 5ms, 0ms, {}), 0u);
    EXPECT_EQ(add(*manager, 1ms, -1ms, [] {}), 1u) << "the shortest period there is";
    const auto refused = test::error("period error period: lu");
    const auto registered = test::information("registerTask task name: x, period: lu count: [ERRFMT]");
    EXPECT_EQ(log.lines(), (std::vector{refused, refused, test::error("task Func is nullptr!"), registered}));
    std::stringstream listing;
    manager->showAllTaskInfo(listing);
    EXPECT_EQ(listing.str(), "task id   name  period    timout    status \n1  x  1ms  -1ms 0\n");
}

TEST_F(PeriodicTaskManagerTest, KeepsACancelledTaskUntilTheNextPassAndDropsItsCapturesOutsideTheLock)
{
    std::shared_ptr<int> calls_back(nullptr, [this](int*) { manager->getTaskCount(); });
    const unsigned int id = add(*manager, 5ms, 0ms, [calls = std::move(calls_back)] {});
    EXPECT_EQ(add(*manager, 5ms, 0ms, [] {}), id + 1);
    for (const Periods& left : {Periods{1, 5}, Periods{1}, Periods{1}}) {
        EXPECT_TRUE(manager->cancelTask(id));
        EXPECT_EQ(periods, left) << "a second cancel erases the period of another task";
    }
    EXPECT_EQ(manager->getTaskStatus(id), TASK_CANCELLED);
    EXPECT_EQ(manager->getTaskCount(), 2u);
    pass();
    EXPECT_EQ(interval, 10ms) << "of the shortest period that is left";
    EXPECT_EQ(manager->getTaskCount(), 1u);
    EXPECT_FALSE(manager->cancelTask(id));
    EXPECT_EQ(manager->getTaskStatus(id), TASK_NOT_FOUND);
    EXPECT_EQ(log.count(test::information("cancelTask id: [ERRFMT], period: lu, count: lu")), 3u);
    EXPECT_TRUE(log.has(test::error("Task ID [lu] not found!")));
}

TEST_F(PeriodicTaskManagerTest, LogsWhatAFunctionThrowsAndKeepsTheTaskScheduled)
{
    const std::function<void()> functions[] = {[] { throw std::runtime_error("why"); }, [] { throw 5; }};
    for (const auto& function : functions) {
        const unsigned int id = add(*manager, 1h, 0ms, function);
        pass(id);
        ASSERT_TRUE(poolUses(0));
        EXPECT_EQ(manager->getTaskStatus(id), TASK_IDLE);
    }
    EXPECT_TRUE(log.has(test::error("Task id: [ERRFMT], execution failed: [ERRFMT]")));
    EXPECT_TRUE(log.has(test::error("Task id: [ERRFMT], unknown execution error")));
}

TEST_F(PeriodicTaskManagerTest, HandsOverWhatIsDueAndNothingTwiceAtATime)
{
    std::atomic<int> runs{0};
    Gate gate;
    const unsigned int due = add(*manager, 1h, 0ms, [&] { ++runs, gate.opened.wait(); });
    const auto never = [] { ADD_FAILURE() << "its period is not over"; };
    record(add(*manager, 1h, 0ms, never))->task_last_run -= 59min;
    add(*manager, milliseconds::max(), 0ms, never);
    for (int i = 0; i < 2; ++i) {
        pass(due);
        EXPECT_EQ(pool.used(), 1) << "a task that runs is skipped";
    }
    gate.open();
    ASSERT_TRUE(poolUses(0));
    for (int i = 0; i < 3; ++i) pass();
    ASSERT_TRUE(poolUses(0));
    EXPECT_EQ(runs, 2) << "what was missed is not made up";
}

TEST_F(PeriodicTaskManagerTest, LetsARunThatIsCancelledEndAndForgetsItsTask)
{
    for (const unsigned bits : {0u, unsigned{kWatchTimeouts}}) {
        const WithSafeguards guarded(bits);
        std::atomic<int> runs{0};
        unsigned int id = 0;
        id = add(*manager, 1h, bits == 0 ? 0ms : 1h, [&] {
            ++runs;
            std::this_thread::sleep_for(3ms);  // long enough for a watch to fall asleep, which must wake then
            manager->cancelTask(id);
        });
        const auto task = record(id);
        pass(id);
        ASSERT_TRUE(poolUses(0));
        handOver(task);  // as if the cancel had come before the run began
        ASSERT_TRUE(poolUses(0));
        EXPECT_EQ(runs, 1);
        EXPECT_EQ(task->task_status, TASK_CANCELLED);
        pass();
        EXPECT_EQ(manager->getTaskCount(), 0u);
    }
}

TEST_F(PeriodicTaskManagerTest, TakesATenthOfTheShortestPeriodAndLogsByItsRule)
{
    const std::tuple<Periods, milliseconds, std::size_t> rows[] = {
        {{}, 2000ms, 3},  {{99}, 10ms, 3},      {{1000, 40000}, 100ms, 1},
        {{100}, 10ms, 1}, {{20009}, 2000ms, 1}, {{20010}, 2000ms, 3}};
    for (const auto& [live, expected, lines_in_three_passes] : rows) {
        periods = live;
        log.clear();
        for (int i = 0; i < 3; ++i) adjust();
        EXPECT_EQ(interval, expected);
        EXPECT_EQ(log.count(test::information("Adjust monitor interval to lu ms")), lines_in_three_passes);
    }
}

TEST_F(PeriodicTaskManagerTest, TakesOneLookAtARunUnlessAskedToWatchItAndKeepsATaskThatIsLateForGood)
{
    const auto timed_out = test::error("Task id: [ERRFMT], timeout: lu - will be deleted");
    for (const bool asked : {false, true}) {
        const WithSafeguards guarded(asked ? unsigned{kWatchTimeouts} : 0u);
        Gate gate;
        const unsigned int id = add(*manager, 1h, 1s, [&] { gate.opened.wait(); });
        pass(id);
        ASSERT_TRUE(poolUses(2));
        ASSERT_TRUE(poolUses(1)) << "the watch has ended";
        EXPECT_EQ(manager->getTaskStatus(id), asked ? TASK_TIMEOUT : TASK_RUNNING);
        if (!asked) watch(record(id));  // the one look of a watch that waited for its thread
        ASSERT_TRUE(poolUses(1));
        gate.open();
        ASSERT_TRUE(poolUses(0));
        EXPECT_EQ(log.count(timed_out), asked ? 2u : 1u);
        manager->cancelTask(id);
        pass(id);
        EXPECT_EQ(manager->getTaskStatus(id), TASK_TIMEOUT);
    }
}

TEST_F(PeriodicTaskManagerTest, LosesATaskWhoseWatchIsRefusedUnlessItMayRunUnwatched)
{
    for (const bool lost : {false, true}) {
        const WithSafeguards guarded(lost ? 0u : kWaitForThread | kWatchTimeouts);
        std::atomic<int> runs{0};
        const unsigned int id = add(*manager, 1h, 1h, [&] { ++runs; });
        Gate gate;
        occupy(31, gate.opened);
        pass(id);
        ASSERT_TRUE(poolUses(31));
        EXPECT_EQ(log.has(test::error("No thread available")), lost);
        EXPECT_EQ(runs, lost ? 0 : 1);
        EXPECT_EQ(manager->getTaskStatus(id), lost ? TASK_RUNNING : TASK_IDLE);
        gate.open();
        ASSERT_TRUE(poolUses(0));
    }
}

TEST_F(PeriodicTaskManagerTest, KeepsWhatFindsNoThreadDueAndHandsItOverByTheLengthOfItsWait)
{
    const WithSafeguards guarded(kWaitForThread);
    std::string order;  // one pool thread at a time runs what writes to it
    for (char name = 'a'; name < 'd'; ++name)
        record(add(*manager, 1h, 0ms, [&order, name] { order += name; }))->task_last_run -= 1h + 1min * name;
    Gate one, others;
    occupy(1, one.opened);
    occupy(31, others.opened);
    for (int i = 0; i < 2; ++i) pass();
    one.open();
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(poolUses(31));
        pass();
    }
    ASSERT_TRUE(poolUses(31));
    EXPECT_EQ(order, "cba");
    EXPECT_EQ(log.countPrefix("no thread for "), 1u) << "told once";
}

TEST_F(PeriodicTaskManagerTest, RunsFromStartToStopAndAgain)
{
    std::atomic<int> runs{0};
    add(*manager, 1ms, 0ms, [&] { ++runs; });
    for (int round = 1; round <= 2; ++round) {
        manager->startPeriodMonitorTask();
        EXPECT_TRUE(test::eventually([&] { return runs >= 5 * round; }));
        manager->stopPeriodMonitorTask();
        EXPECT_TRUE(test::eventually([&] { return monitors() == 0; }));
    }
}

TEST(PeriodicTaskManagerDeathTest, EndsTheProcessWhenThePoolIsFull)
{
    const auto overload = [] {
        auto& manager = PeriodicTaskManager::getInstance();
        for (int i = 0; i < 33; ++i) add(manager, 1ms, 0ms, [] { pause(); });
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
            const auto once = [] {  // and leaves a watch that sleeps for a day
                std::this_thread::sleep_for(3ms);
                PeriodicTaskManager::getInstance().cancelTask(1);
            };
            EXPECT_EQ(add(manager, 1ms, 24h, once), 1u);
            for (int t = 0; t < 6; ++t) add(manager, 1ms, 0ms, [] { std::this_thread::sleep_for(300us); });
            manager.startPeriodMonitorTask();
            std::this_thread::sleep_for(std::chrono::microseconds(i * 731));
            std::exit(0);
        };
        EXPECT_EXIT(work_and_exit(), testing::ExitedWithCode(0), "");
    }
}

TEST(PeriodicTaskManagerDeathTest, ExitsCleanlyFromWithinATaskBesideOneThatNeverReturns)
{
    const auto exit_inside = [] {
        alarm(60);  // whatever hangs from here on is killed
        auto& manager = PeriodicTaskManager::getInstance();
        add(manager, 1ms, 0ms, [] { pause(); });
        add(manager, 30ms, 0ms, [] { std::exit(7); });
        manager.startPeriodMonitorTask();
        pause();
    };
    EXPECT_EXIT(exit_inside(), testing::ExitedWithCode(7), "");
}

TEST(PeriodicTaskManagerDeathTest, LetsAForkedChildExitWhateverLocksItInherits)
{
    const auto fork_and_exit = [] {
        LogCapture::instance().setHook([](const test::LogLine&) { test::inChild([] { alarm(15); }); });
        add(PeriodicTaskManager::getInstance(), 1ms, 0ms, [] {});  // logs while it holds the table's mutex
        std::exit(testing::Test::HasFailure() ? 1 : 0);
    };
    EXPECT_EXIT(fork_and_exit(), testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace kro
