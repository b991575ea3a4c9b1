#include "Logger.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <functional>
#include <future>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <Poco/Exception.h>

#include "support/Eventually.h"

namespace kro
{
struct LoggerTestAccess
{
    static bool isRunning(const NonBlockingLoggerChannel& channel) { return channel.running_; }
};

namespace
{
using Branch = Poco::AutoPtr<NonBlockingLoggerChannel>;

/// A slow channel that writes down what it gets, and can be held at its gate. Thread-safe.
class SlowChannel : public Poco::Channel
{
public:
    explicit SlowChannel(std::string throw_on_text = {}) : throws_on(std::move(throw_on_text)) {}

    void log(const Poco::Message& message) override
    {
        std::unique_lock<std::mutex> lock(mutex);
        texts.push_back(prefix + message.getText());
        opened.wait(lock, [this] { return open; });
        if (!throws_on.empty() && message.getText() == throws_on) throw std::runtime_error("no room");
    }
    void setProperty(const std::string& name, const std::string& value) override
    {
        const std::lock_guard<std::mutex> lock(mutex);
        if (name == "prefix") prefix = value;
    }
    void setOpen(bool now_open)
    {
        const std::lock_guard<std::mutex> lock(mutex);
        open = now_open;
        opened.notify_all();
    }
    std::vector<std::string> received() const
    {
        const std::lock_guard<std::mutex> lock(mutex);
        return texts;
    }

private:
    mutable std::mutex mutex;  // guards all below but throws_on
    std::condition_variable opened;
    bool open = true;
    std::string prefix;
    std::vector<std::string> texts;
    const std::string throws_on;
};

class LoggerChannelTest : public testing::Test
{
protected:
    static void log(Branch& branch, int first, int last)
    {
        for (int i = first; i <= last; ++i)
            branch->log(Poco::Message("source", std::to_string(i), Poco::Message::PRIO_INFORMATION));
    }
    static std::vector<std::string> numbers(int first, int last)
    {
        std::vector<std::string> texts;
        for (int i = first; i <= last; ++i) texts.push_back(std::to_string(i));
        return texts;
    }
    /// Logs "0", and waits until the worker is held with it in hand.
    void holdWorker(Branch& branch, const Poco::AutoPtr<SlowChannel>& channel)
    {
        Poco::AutoPtr<SlowChannel>(channel)->setOpen(false);
        log(branch, 0, 0);
        ASSERT_TRUE(test::eventually([&] { return channel->received().size() == 1; }));
    }

    Poco::AutoPtr<SlowChannel> slow{new SlowChannel};
};

TEST_F(LoggerChannelTest, RefusesTheNewestPastTheLimitAndCountsExactlyThose)
{
    Branch branch(new NonBlockingLoggerChannel(slow, 100));
    holdWorker(branch, slow);
    log(branch, 1, 100);
    EXPECT_EQ(branch->droppedCount(), 0u);
    log(branch, 101, 107);
    EXPECT_EQ(branch->droppedCount(), 7u);
    slow->setOpen(true);
    EXPECT_TRUE(branch->waitWritten(std::chrono::seconds(20)));
    EXPECT_EQ(slow->received(), numbers(0, 100));
    log(branch, 200, 200);
    EXPECT_TRUE(test::eventually([&] { return slow->received().size() == 102; })) << "there is room again";

    Branch closed(new NonBlockingLoggerChannel(slow, 0));
    log(closed, 1, 2);
    EXPECT_EQ(closed->droppedCount(), 2u);
}

TEST_F(LoggerChannelTest, WritesAllThatItHasAcceptedBeforeItIsDestroyed)
{
    Branch branch(new NonBlockingLoggerChannel(slow, 1000));
    holdWorker(branch, slow);
    log(branch, 1, 1000);
    auto destroyed = std::async(std::launch::async, [&] { branch = nullptr; });
    slow->setOpen(true);
    destroyed.get();
    EXPECT_EQ(slow->received(), numbers(0, 1000));
}

TEST_F(LoggerChannelTest, LosesTheRestOfABatchThatFailsAndGoesOnWithTheNext)
{
    const Poco::AutoPtr<SlowChannel> failing(new SlowChannel("3"));
    Branch branch(new NonBlockingLoggerChannel(failing, 1000));
    holdWorker(branch, failing);
    log(branch, 1, 70);  // a batch of 64, of which the third fails, and one of 6
    Poco::AutoPtr<SlowChannel>(failing)->setOpen(true);
    EXPECT_TRUE(branch->waitWritten(std::chrono::seconds(20)));
    auto expected = numbers(0, 3);
    for (const std::string& text : numbers(65, 70)) expected.push_back(text);
    EXPECT_EQ(failing->received(), expected);
    EXPECT_EQ(branch->droppedCount(), 0u) << "only refusals are counted";
}

TEST_F(LoggerChannelTest, LosesOneMessageAtATimeInTheFinalDrain)
{
    const Poco::AutoPtr<SlowChannel> failing(new SlowChannel("3"));
    Branch branch(new NonBlockingLoggerChannel(failing, 1000));
    holdWorker(branch, failing);
    log(branch, 1, 10);
    const NonBlockingLoggerChannel* const stopping = branch.get();
    auto destroyed = std::async(std::launch::async, [&] { branch = nullptr; });
    // The destructor waits for the worker, which is held: the object is there until the gate opens.
    ASSERT_TRUE(test::eventually([&] { return !LoggerTestAccess::isRunning(*stopping); }));
    Poco::AutoPtr<SlowChannel>(failing)->setOpen(true);
    destroyed.get();
    EXPECT_EQ(failing->received(), numbers(0, 10));
}

TEST_F(LoggerChannelTest, SetsAPropertyPastTheQueue)
{
    Branch branch(new NonBlockingLoggerChannel(slow, 1000));
    holdWorker(branch, slow);
    log(branch, 1, 2);
    auto writing = std::async(std::launch::async, [&] { branch->setProperty("prefix", "new "); });
    writing.get();
    slow->setOpen(true);
    EXPECT_TRUE(branch->waitWritten(std::chrono::seconds(20)));
    EXPECT_EQ(slow->received(), (std::vector<std::string>{"0", "new 1", "new 2"}));
    EXPECT_THROW(branch->getProperty("prefix"), Poco::PropertyNotSupportedException) << "not forwarded";
}

TEST_F(LoggerChannelTest, TakesAndDiscardsWithoutAChannelBehindIt)
{
    Branch branch(new NonBlockingLoggerChannel(nullptr, 2));
    branch->setProperty("prefix", "nowhere");
    for (int i = 0; i < 20; ++i) {
        log(branch, 0, 1);
        EXPECT_TRUE(branch->waitWritten(std::chrono::seconds(20)));
    }
    EXPECT_EQ(branch->droppedCount(), 0u);
}

TEST_F(LoggerChannelTest, KeepsEachCallersOrderAndLosesNothingBetweenSleepAndWake)
{
    Branch branch(new NonBlockingLoggerChannel(slow, 100000));
    std::vector<std::thread> callers;
    for (int caller = 0; caller < 8; ++caller) {
        callers.emplace_back([&branch, caller] {
            for (int i = 0; i < 500; ++i) {
                log(branch, caller * 1000 + i, caller * 1000 + i);
                if (i % 10 == 0) std::this_thread::yield();  // lets the worker fall asleep now and then
            }
        });
    }
    for (std::thread& caller : callers) caller.join();
    EXPECT_TRUE(branch->waitWritten(std::chrono::seconds(20)));
    std::vector<int> next(8);
    for (const std::string& text : slow->received()) {
        const int number = std::stoi(text);
        ASSERT_EQ(number % 1000, next.at(static_cast<std::size_t>(number / 1000))++);
    }
    EXPECT_EQ(next, std::vector<int>(8, 500));
}

TEST_F(LoggerChannelTest, GivesUpWaitingForAChannelThatTakesNothing)
{
    Branch branch(new NonBlockingLoggerChannel(slow, 1000));
    holdWorker(branch, slow);
    log(branch, 1, 5);
    EXPECT_FALSE(branch->waitWritten(std::chrono::milliseconds(20)));
    slow->setOpen(true);
    EXPECT_TRUE(branch->waitWritten(std::chrono::seconds(20)));
}

}  // namespace
}  // namespace kro
