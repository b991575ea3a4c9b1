#include "ThreadPool.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>

#include <Poco/Exception.h>

#include "support/Eventually.h"
#include "support/LogCapture.h"
#include "support/WithSafeguards.h"

namespace kro
{
namespace
{
using test::eventually;

class ThreadPoolTest : public testing::Test
{
protected:
    ThreadPoolTest() { log.clear(); }
    ~ThreadPoolTest() override
    {
        is_open = true;
        pool->joinAll();
    }
    /// Starts a task that ends with `last` once `gate` is true, and so not before it is listed.
    void startHeld(const std::atomic<bool>& gate, const std::function<void()>& last)
    {
        pool->start([&gate, last] {
            eventually([&] { return gate.load(); });
            last();
        });
    }

    test::LogCapture& log = test::LogCapture::instance();
    std::atomic<bool> is_open{false};
    const std::shared_ptr<int> capture = std::make_shared<int>(7);
    const std::shared_ptr<ThreadPool> pool = std::make_shared<ThreadPool>(1, 32, 60, 0);
};

TEST_F(ThreadPoolTest, ReleasesCapturesOnThePoolThreadWhenASharedPtrOwnsThePool)
{
    std::atomic<std::thread::id> ran_on, released_on;
    std::atomic<bool> may_end{false};
    std::shared_ptr<void> released(&may_end, [&](void*) { released_on = std::this_thread::get_id(); });
    startHeld(is_open, [] {});  // the first of the list, which goes on
    startHeld(may_end, [&ran_on, released] { ran_on = std::this_thread::get_id(); });
    released.reset();
    may_end = true;
    EXPECT_TRUE(eventually([&] { return released_on.load() != std::thread::id(); }));
    EXPECT_EQ(ran_on, released_on);
}

TEST_F(ThreadPoolTest, KeepsEveryTaskWhenNoSharedPtrOwnsThePoolUnlessAskedToReleaseThem)
{
    for (const unsigned bits : {0u, unsigned(kReleaseAdapters)}) {
        const test::WithSafeguards set(bits);
        ThreadPool plain(1, 32, 60, 0);
        for (int i = 0; i < 3; ++i) plain.start([kept = capture] {});
        plain.joinAll();
        EXPECT_EQ(capture.use_count(), bits == 0 ? 4 : 1);
    }
}

TEST_F(ThreadPoolTest, RefusesTheThirtyThirdTaskAndDoesNotKeepIt)
{
    for (int i = 0; i < 32; ++i) startHeld(is_open, [] {});
    EXPECT_THROW(pool->start([kept = capture] {}), Poco::NoThreadAvailableException);
    EXPECT_EQ(capture.use_count(), 1);
    EXPECT_EQ(log.lines(), std::vector{test::error("exception: No thread available")});
}

TEST_F(ThreadPoolTest, LogsWhatATaskThrowsAndKeepsOneThatThrowsAnyOtherThing)
{
    startHeld(is_open, [] { throw Poco::NotFoundException("the key"); });
    startHeld(is_open, [] { throw std::runtime_error("plain"); });
    startHeld(is_open, [kept = capture] { throw 5; });
    pool->start({}, "an empty task");
    is_open = true;
    pool->joinAll();
    EXPECT_EQ(log.count(test::error("Not found: the key")) + log.count(test::error("plain")), 2u);
    EXPECT_EQ(log.lines().size(), 2u);
    EXPECT_EQ(capture.use_count(), 2);
}

TEST_F(ThreadPoolTest, MayBeDestroyedUnderATaskThatUsesNoCaptures)
{
    static std::atomic<bool> s_begun{false}, s_may_end{false};
    auto doomed = std::make_shared<ThreadPool>(1, 32, 60, 0);
    doomed->start([kept = capture] {
        s_begun = true;
        eventually([] { return s_may_end.load(); });
    });
    ASSERT_TRUE(eventually([] { return s_begun.load(); }));
    auto destroyed = std::async(std::launch::async, [&] { doomed.reset(); });
    // Adapters go first: before the task gives up, after 20 s.
    EXPECT_TRUE(eventually([&] { return capture.use_count() == 1; }, std::chrono::seconds(10)));
    s_may_end = true;
    destroyed.get();
}

}  // namespace
}  // namespace kro
