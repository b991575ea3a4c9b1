#include <gtest/gtest.h>

#include <algorithm>
#include <future>

#include "Logger.h"
#include "support/Eventually.h"
#include "support/Recorder.h"

namespace kro
{
struct LoggerTestAccess
{
    static bool isRunning(const NonBlockingLoggerChannel& channel) { return channel.running_; }
};

namespace
{
using namespace std::chrono_literals;
using Branch = Poco::AutoPtr<NonBlockingLoggerChannel>;

/// Writes down what it gets, waits at its gate, and fails at one text.
class SlowChannel : public Poco::Channel
{
public:
    void log(const Poco::Message& message) override
    {
        received.add(message.getText());
        if (gate.valid()) gate.wait();
        if (message.getText() == "3") throw std::runtime_error("no room");
    }
    void setProperty(const std::string& name, const std::string& value) override
    {
        received.add(name + "=" + value);
    }

    test::Recorder<std::string> received;
    std::shared_future<void> gate;  // set before the first message
};

class LoggerChannelTest : public testing::Test
{
protected:
    static void log(Branch& to, int first, int last)
    {
        for (int i = first; i <= last; ++i)
            to->log(Poco::Message("source", std::to_string(i), Poco::Message::PRIO_INFORMATION));
    }
    static std::vector<std::string> numbers(int first, int last)
    {
        std::vector<std::string> texts;
        for (int i = first; i <= last; ++i) texts.push_back(std::to_string(i));
        return texts;
    }
    /// Logs "0", and waits until the worker stands at the gate with it in hand.
    /// @return what opens the gate.
    std::promise<void> holdWorker()
    {
        std::promise<void> held;
        slow->gate = held.get_future().share();
        log(branch, 0, 0);
        EXPECT_TRUE(test::eventually([&] { return slow->received.all() == numbers(0, 0); }));
        return held;
    }

    Poco::AutoPtr<SlowChannel> slow{new SlowChannel};
    Branch branch{new NonBlockingLoggerChannel(slow, 100)};
};

TEST_F(LoggerChannelTest, RefusesTheNewestPastTheLimitAndSetsAPropertyPastTheQueue)
{
    auto held = holdWorker();
    log(branch, 10, 109);
    EXPECT_EQ(branch->droppedCount(), 0u);
    log(branch, 110, 116);
    EXPECT_EQ(branch->droppedCount(), 7u);
    EXPECT_FALSE(branch->waitWritten(20ms)) << "nothing moves";
    branch->setProperty("prefix", "new");
    held.set_value();
    EXPECT_TRUE(branch->waitWritten(20s));
    log(branch, 110, 110);
    EXPECT_TRUE(branch->waitWritten(20s));
    auto expected = numbers(8, 110);
    expected[0] = "0", expected[1] = "prefix=new";
    EXPECT_EQ(slow->received.all(), expected) << "there is room again";
    Branch closed(new NonBlockingLoggerChannel(slow, 0));
    log(closed, 1, 2);
    EXPECT_EQ(closed->droppedCount(), 2u);
}

TEST_F(LoggerChannelTest, LosesTheRestOfABatchThatFailsAndGoesOnWithTheNext)
{
    auto held = holdWorker();
    log(branch, 1, 70);  // a batch of 64, of which the third fails, and one of 6
    held.set_value();
    EXPECT_TRUE(branch->waitWritten(20s));
    auto expected = numbers(0, 3);
    for (const std::string& text : numbers(65, 70)) expected.push_back(text);
    EXPECT_EQ(slow->received.all(), expected);
    EXPECT_EQ(branch->droppedCount(), 0u) << "only refusals are counted";
}

TEST_F(LoggerChannelTest, WritesAllThatItHasAcceptedBeforeItIsDestroyedAndThenLosesOneMessageAtATime)
{
    auto held = holdWorker();
    log(branch, 1, 100);
    const NonBlockingLoggerChannel* const stopping = branch.get();
    auto destroyed = std::async(std::launch::async, [&] { branch = nullptr; });
    // The destructor waits for the worker, which is held: the object is there until the gate opens.
    EXPECT_TRUE(test::eventually([&] { return !LoggerTestAccess::isRunning(*stopping); }));
    held.set_value();
    destroyed.get();
    EXPECT_EQ(slow->received.all(), numbers(0, 100));
}

TEST_F(LoggerChannelTest, KeepsEachCallersOrderAndLosesNothingBetweenSleepAndWake)
{
    Branch wide(new NonBlockingLoggerChannel(slow, 100000));
    std::vector<std::thread> callers;
    for (int caller = 1; caller <= 8; ++caller) {
        callers.emplace_back([&wide, caller] {
            for (int i = 0; i < 500; ++i) {
                log(wide, caller * 1000 + i, caller * 1000 + i);
                if (i % 10 == 0) std::this_thread::yield();  // lets the worker fall asleep now and then
            }
        });
    }
    for (std::thread& caller : callers) caller.join();
    EXPECT_TRUE(wide->waitWritten(20s));
    int next[9] = {};
    for (const std::string& text : slow->received.all()) {
        const int caller = std::stoi(text) / 1000;
        ASSERT_EQ(std::stoi(text) % 1000, next[caller]++) << "of caller " << caller;
    }
    EXPECT_EQ(std::count(next, next + 9, 500), 8);
}

}  // namespace
}  // namespace kro
