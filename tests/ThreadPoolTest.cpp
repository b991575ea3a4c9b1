#include "ThreadPool.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <future>
#include <thread>

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
using test::eventually;
using test::LogCapture;
using Access = ThreadPoolTestAccess;

class ThreadPoolTest : public testing::Test
{
protected:
    ~ThreadPoolTest() override
    {
        if (!is_open) open();
        pool->joinAll();
    }
    /// Starts a task that ends with `last` once the gate is open, and so not before it is listed.
    template <typename Last>
    void startHeld(Last last)
    {
        pool->start([held = opened, last] { held.wait(), last(); });
    }
    void open() { is_open = true, gate.set_value(); }

    std::promise<void> gate;
    bool is_open = false;
    const std::shared_future<void> opened = gate.get_future().share();
    const std::shared_ptr<ThreadPool> pool = std::make_shared<ThreadPool>(1, 32, 60, 0);
};

TEST_F(ThreadPoolTest, ReleasesCapturesOnThePoolThreadWhenASharedPtrOwnsThePool)
{
    std::promise<std::thread::id> ran_on, released_on;
    std::shared_ptr<int> capture(new int(7), [&](const int* number) {
        delete number;
        released_on.set_value(std::this_thread::get_id());
    });
    startHeld([&ran_on, capture] { ran_on.set_value(std::this_thread::get_id()); });
    capture.reset();
    EXPECT_EQ(Access::live(*pool), 1u);
    open();
    EXPECT_EQ(ran_on.get_future().get(), released_on.get_future().get());
    EXPECT_TRUE(eventually([&] { return Access::live(*pool) == 0; }));
}

TEST_F(ThreadPoolTest, KeepsEveryAdapterWhenNoSharedPtrOwnsThePool)
{
    const auto capture = std::make_shared<int>(7);
    {
        ThreadPool plain(1, 32, 60, 0);
        for (int i = 0; i < 3; ++i) plain.start([capture] {});
        plain.joinAll();
        EXPECT_EQ(capture.use_count(), 4);
    }
    EXPECT_EQ(capture.use_count(), 1);
}

TEST_F(ThreadPoolTest, RefusesTheThirtyThirdTaskAndTakesOneAgainWhenOneHasEnded)
{
    std::promise<void> first;
    pool->start([may_end = first.get_future().share()] { may_end.wait(); });
    for (int i = 1; i < 32; ++i) startHeld([] {});
    LogCapture::instance().clear();
    const auto capture = std::make_shared<int>(7);
    EXPECT_THROW(pool->start([capture] {}), Poco::NoThreadAvailableException);
    EXPECT_EQ(capture.use_count(), 1) << "a refused task must not stay in the list";
    EXPECT_EQ(LogCapture::instance().lines(), std::vector{test::error("exception: No thread available")});
    first.set_value();
    EXPECT_TRUE(eventually([&] { return pool->used() == 31; }));
    EXPECT_NO_THROW(startHeld([] {}));
}

TEST_F(ThreadPoolTest, LogsWhatATaskThrowsAndLeavesTheAdapterForAnyOtherThing)
{
    LogCapture::instance().clear();
    startHeld([] { throw Poco::NotFoundException("the key"); });
    startHeld([] { throw std::runtime_error("plain"); });
    startHeld(std::function<void()>());  // throws std::bad_function_call
    startHeld([] { throw 5; });
    open();
    for (const char* const text : {"Not found: the key", "plain", "bad_function_call"})
        EXPECT_TRUE(eventually([&] { return LogCapture::instance().has(test::error(text)); })) << text;
    pool->joinAll();
    EXPECT_EQ(Access::live(*pool), 1u);
    EXPECT_NO_THROW(pool->start({}, "an empty task"));
    pool->joinAll();
    EXPECT_EQ(LogCapture::instance().lines().size(), 3u);
}

TEST_F(ThreadPoolTest, MayBeDestroyedUnderATaskThatUsesNoCaptures)
{
    static std::atomic<bool> s_begun{false}, s_may_end{false};
    auto doomed = std::make_shared<ThreadPool>(1, 32, 60, 0);
    const auto capture = std::make_shared<int>(7);
    doomed->start([capture] {
        s_begun = true;
        eventually([] { return s_may_end.load(); });
    });
    ASSERT_TRUE(eventually([] { return s_begun.load(); }));
    auto destroyed = std::async(std::launch::async, [&] { doomed.reset(); });
    EXPECT_TRUE(eventually([&] { return capture.use_count() == 1; })) << "adapters go first";
    s_may_end = true;
    destroyed.get();
}

TEST_F(ThreadPoolTest, RunsAtOneOfTwoPrioritiesOnThreadsThatAreNotNamedAfterTheirStarter)
{
    pthread_setname_np(pthread_self(), "starter");
    startHeld([] {});  // takes the thread that stands ready, so that the next one is started from here
    for (const bool low : {true, false}) {
        std::promise<std::pair<int, std::string>> seen;
        const auto task = [&seen] {
            char name[16];
            pthread_getname_np(pthread_self(), name, sizeof name);
            seen.set_value({Poco::Thread::current()->getPriority(), name});
        };
        pool->startWithPriority(task, "probe", low);
        const auto priority = low ? Poco::Thread::PRIO_LOWEST : Poco::Thread::PRIO_NORMAL;
        EXPECT_EQ(seen.get_future().get(), std::pair(int{priority}, std::string("kro-pool")));
    }
}

}  // namespace
}  // namespace kro
