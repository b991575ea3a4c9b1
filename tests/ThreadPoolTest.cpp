#include "ThreadPool.h"

#include <gtest/gtest.h>

#include <pthread.h>
#include <atomic>
#include <future>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <Poco/Exception.h>
#include <Poco/Thread.h>

#include "support/Eventually.h"
#include "support/LogCapture.h"

namespace kro
{
struct ThreadPoolTestAccess
{
    static std::size_t live(ThreadPool& pool)
    {
        const Poco::FastMutex::ScopedLock lock(pool.live_adapters_mutex);
        return pool.live_adapters.size();
    }
};

namespace
{
using test::LogCapture;
using Access = ThreadPoolTestAccess;

class ThreadPoolTest : public testing::Test
{
protected:
    ~ThreadPoolTest() override
    {
        gate.set_value();
        pool->joinAll();
    }
    /// Starts a task that holds its thread until the test ends, and is listed before it may end.
    void startHeld()
    {
        pool->start([held = opened] { held.wait(); });
    }

    std::promise<void> gate;
    std::shared_future<void> opened = gate.get_future().share();
    const std::shared_ptr<ThreadPool> pool = std::make_shared<ThreadPool>(1, 32, 60, 0);
};

TEST_F(ThreadPoolTest, ReleasesCapturesOnThePoolThreadWhenASharedPtrOwnsThePool)
{
    std::promise<void> listed;
    std::atomic<bool> released{false};
    std::thread::id ran_on;
    std::thread::id released_on;
    std::shared_ptr<int> capture(new int(7), [&](const int* number) {
        delete number;
        released_on = std::this_thread::get_id();
        released = true;
    });
    pool->start([&ran_on, may_end = listed.get_future().share(), capture] {
        ran_on = std::this_thread::get_id();
        may_end.wait();
    });
    capture.reset();
    EXPECT_EQ(Access::live(*pool), 1u);
    listed.set_value();
    ASSERT_TRUE(test::eventually([&] { return released.load(); }));
    EXPECT_TRUE(test::eventually([&] { return Access::live(*pool) == 0; }));
    EXPECT_EQ(ran_on, released_on);
}

TEST_F(ThreadPoolTest, KeepsEveryAdapterWhenNoSharedPtrOwnsThePool)
{
    const auto capture = std::make_shared<int>(7);
    {
        ThreadPool plain(1, 32, 60, 0);
        for (int i = 0; i < 3; ++i) plain.start([capture] {});
        plain.joinAll();
        EXPECT_EQ(Access::live(plain), 3u);
        EXPECT_EQ(capture.use_count(), 4);
    }
    EXPECT_EQ(capture.use_count(), 1);
}

TEST_F(ThreadPoolTest, RefusesTheThirtyThirdTaskAndTakesOneAgainWhenOneHasEnded)
{
    std::promise<void> first;
    pool->start([may_end = first.get_future().share()] { may_end.wait(); });
    for (int i = 1; i < 32; ++i) startHeld();
    LogCapture::instance().clear();
    const auto capture = std::make_shared<int>(7);
    EXPECT_THROW(pool->start([capture] {}), Poco::NoThreadAvailableException);
    EXPECT_EQ(capture.use_count(), 1) << "a refused task must not stay in the list";
    EXPECT_EQ(LogCapture::instance().lines(), std::vector{test::error("exception: No thread available")});
    EXPECT_EQ(Access::live(*pool), 32u);
    first.set_value();
    EXPECT_TRUE(test::eventually([&] { return pool->used() == 31; }));
    EXPECT_NO_THROW(startHeld());
}

TEST_F(ThreadPoolTest, LogsWhatATaskThrowsAndGoesOn)
{
    LogCapture::instance().clear();
    std::promise<void> listed;
    const auto may_throw = listed.get_future().share();
    pool->start([may_throw] { may_throw.wait(), throw Poco::NotFoundException("the key"); });
    pool->start([may_throw] { may_throw.wait(), throw std::runtime_error("plain"); });
    pool->start({}, "an empty task");
    listed.set_value();
    EXPECT_TRUE(test::eventually([] {
        return LogCapture::instance().has(test::error("Not found: the key")) &&
               LogCapture::instance().has(test::error("plain"));
    }));
    pool->joinAll();
    EXPECT_LE(Access::live(*pool), 1u) << "only the empty task may have ended before it was listed";
}

TEST_F(ThreadPoolTest, LeavesTheAdapterOfATaskThatThrowsSomethingElse)
{
    std::promise<void> listed;
    pool->start([may_throw = listed.get_future().share()] { may_throw.wait(), throw 5; });
    listed.set_value();
    pool->joinAll();
    EXPECT_EQ(Access::live(*pool), 1u);
}

TEST_F(ThreadPoolTest, KeepsATaskThatEndsBeforeItIsListed)
{
    // Which of the two comes first is up to the scheduler: one in some hundred is enough.
    EXPECT_TRUE(test::eventually([this] {
        pool->start([] {});
        pool->joinAll();
        return Access::live(*pool) > 0;
    }));
}

TEST_F(ThreadPoolTest, MayBeDestroyedUnderATaskThatUsesNoCaptures)
{
    static std::atomic<bool> begun{false};
    static std::atomic<bool> may_end{false};
    auto doomed = std::make_shared<ThreadPool>(1, 32, 60, 0);
    const auto capture = std::make_shared<int>(7);
    doomed->start([capture] {
        begun = true;
        test::eventually([] { return may_end.load(); });
    });
    ASSERT_TRUE(test::eventually([] { return begun.load(); }));
    auto destroyed = std::async(std::launch::async, [&] { doomed.reset(); });
    EXPECT_TRUE(test::eventually([&] { return capture.use_count() == 1; })) << "adapters go first";
    may_end = true;
    destroyed.get();
}

TEST_F(ThreadPoolTest, RunsAtTheLowestPriorityOrAtTheNormalOne)
{
    for (const bool low : {true, false}) {
        std::promise<int> seen;
        pool->startWithPriority([&] { seen.set_value(Poco::Thread::current()->getPriority()); }, "probe",
                                low);
        EXPECT_EQ(seen.get_future().get(), low ? Poco::Thread::PRIO_LOWEST : Poco::Thread::PRIO_NORMAL);
    }
}

TEST_F(ThreadPoolTest, NamesItsThreadsAndNotAfterTheirStarter)
{
    std::promise<std::string> seen;
    std::thread([&] {
        pthread_setname_np(pthread_self(), "starter");
        startHeld();  // takes the thread that stands ready, so that the next one is started from here
        pool->start([&] {
            char name[16];
            pthread_getname_np(pthread_self(), name, sizeof name);
            seen.set_value(name);
        });
    }).join();
    EXPECT_EQ(seen.get_future().get(), "kro-pool");
}

TEST(DefaultPoolTest, IsOnePoolForAllCallers)
{
    std::vector<std::future<ThreadPool*>> found;
    for (int i = 0; i < 8; ++i)
        found.push_back(std::async(std::launch::async, [] { return &ThreadPool::defaultPool(); }));
    for (auto& pool : found) EXPECT_EQ(pool.get(), &ThreadPool::defaultPool());
    EXPECT_EQ(ThreadPool::defaultPool().name(), "default");
    EXPECT_EQ(ThreadPool::defaultPool().capacity(), 32);
}

TEST(TaskManagerTest, RunsItsTasksOnAPoolOfItsOwnOrOnAGivenOne)
{
    struct CountTask : Poco::Task
    {
        explicit CountTask(std::atomic<int>& total) : Poco::Task("count"), runs(total) {}
        void runTask() override { ++runs; }
        std::atomic<int>& runs;
    };
    std::atomic<int> runs{0};
    Poco::ThreadPool given(1, 2, 60, 0);
    TaskManager named("own", 1, 4, 60, 0);
    TaskManager borrowing(given);
    named.start(new CountTask(runs));
    borrowing.start(new CountTask(runs));
    named.joinAll();
    borrowing.joinAll();
    EXPECT_EQ(runs, 2);
}

}  // namespace
}  // namespace kro
