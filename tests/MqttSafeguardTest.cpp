// The client with safeguards, on the fake of Paho.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "Safeguards.h"
#include "TopicFilter.h"
#include "support/MqttFixture.h"
#include "support/WithSafeguards.h"

namespace kro
{
namespace
{
using namespace std::chrono_literals;
using test::error;
using test::eventually;
using test::information;
using test::warning;

class MqttSafeguardTest : public test::MqttFixture
{
protected:
    /// Holds handlers, and tells how many are held.
    class Valve
    {
    public:
        void pass()
        {
            std::unique_lock<std::mutex> lock(mutex);
            ++held;
            changed.wait(lock, [this] { return permits > 0; });
            --permits;
            --held;
            ++passed;
        }
        void open(int count)
        {
            const std::lock_guard<std::mutex> lock(mutex);
            permits += count;
            changed.notify_all();
        }
        bool holds(int count) const
        {
            return eventually([&] { return held == count; });
        }
        std::atomic<int> held{0}, passed{0};

    private:
        std::mutex mutex;  // guards permits
        std::condition_variable changed;
        int permits = 0;
    };

    static MqttClient::MessageHandler through(Valve& valve)
    {
        return [&valve](MQTTAsync_message*, const std::string&) { valve.pass(); };
    }
    /// Takes all threads of the pool.
    void fillPool(Valve& valve)
    {
        for (int i = 0; i < 32; ++i) {
            for (bool started = false; !started;) try
                {
                    Access::pool().start([&valve] { valve.pass(); });
                    started = true;
                } catch (const Poco::NoThreadAvailableException&) {
                    std::this_thread::sleep_for(1ms);  // one is still on its way back
                }
        }
    }
    void guardAndConnect(unsigned bits)
    {
        setSafeguards(bits);
        connect();
    }
    ~MqttSafeguardTest() override
    {
        if (client) Access::release(*client);
        client.reset();
        setSafeguards(0);
    }
};

TEST_F(MqttSafeguardTest, HandsOutTwentyFourHandlersOfAllClientsAndKeepsTheRestInOrder)
{
    for (const unsigned bits : {unsigned(kWaitForThread), kWaitForThread | kDrainInPlace | kReleaseAdapters})
    {
        SCOPED_TRACE(bits);
        Valve first, second;
        guardAndConnect(bits | kSingleRelease | kPromptTeardown | kSafeLifetime);
        subscribe(through(first), "a");
        for (int i = 0; i < 60; ++i) paho.deliver("a", "x");
        EXPECT_TRUE(first.holds(24));
        const auto other = std::move(client);
        connect();  // and the fake delivers to the newest
        subscribe(through(second), "b");
        for (int i = 0; i < 3; ++i) paho.deliver("b", "x");
        EXPECT_EQ(client->GetQueueSize(), 3u);
        EXPECT_EQ(other->GetQueueSize(), 36u);
        // Places that come free go to the one that asked first, and not to the flood alone.
        EXPECT_TRUE(eventually([&] {
            if (second.held == 0) first.open(1);
            return second.held > 0;
        }));
        EXPECT_GT(other->GetQueueSize(), 0u);
        EXPECT_TRUE(eventually([&] { return first.held + second.held == 24; }));
        second.open(3);
        first.open(100);
        EXPECT_TRUE(eventually([&] { return first.passed == 60 && second.passed == 3; }));
        // The end of a client that waits for a place waits for nobody.
        Valve third;
        subscribe(through(third), "c");
        for (int i = 0; i < 30; ++i) paho.deliver("c", "x");
        EXPECT_TRUE(third.holds(24));
        const auto holder = std::move(client);
        connect();
        subscribe(through(third), "d");
        paho.deliver("d", "x");
        client.reset();
        EXPECT_EQ(third.held, 24);
        third.open(100);
        EXPECT_TRUE(eventually([&] { return third.passed == 30; }));
        EXPECT_TRUE(eventually([&] { return other.use_count() == 1 && holder.use_count() == 1; }));
    }
}

TEST_F(MqttSafeguardTest, OutlivesAPoolThatIsFull)
{
    Valve pool, handlers;
    handlers.open(100);
    guardAndConnect(kWaitForThread | kPromptTeardown);
    subscribe(through(handlers), "a");
    fillPool(pool);
    paho.deliver("a", "x");
    EXPECT_TRUE(logged(error("exception: No thread available"), 2)) << "asked again";
    EXPECT_EQ(client->GetQueueSize(), 1u);
    paho.loseConnection("a test");
    EXPECT_TRUE(eventually(
        [&] { return log.countPrefix("Scheduling reconnection after no thread for connecting") >= 1; }));
    pool.open(32);
    EXPECT_TRUE(eventually([&] { return handlers.passed == 1; }));
    EXPECT_TRUE(eventually([&] { return client->IsConnected(); }));
}

TEST_F(MqttSafeguardTest, AWorkerGoesOnWithTheQueueAndALongHandlerHoldsUpNobody)
{
    guardAndConnect(kAllSafeguards);
    test::Recorder<std::string> order;
    Valve valve;
    subscribe(
        [&](MQTTAsync_message* message, const std::string&) {
            const std::string text(static_cast<char*>(message->payload),
                                   static_cast<std::size_t>(message->payloadlen));
            if (text == "wait") valve.pass();  // until a later message has been handled
            order.add(text);
            if (text == "free") valve.open(1);
        },
        "a");
    paho.deliver("a", "wait");
    ASSERT_TRUE(valve.holds(1));
    paho.deliver("a", "free");
    EXPECT_TRUE(eventually([&] { return order.all() == std::vector<std::string>{"free", "wait"}; }));
    EXPECT_TRUE(eventually([] { return Access::busyThreads() == 0; })) << "with the queue empty they go";
}

TEST_F(MqttSafeguardTest, ReleasesWhatWaitsOnce)
{
    guardAndConnect(kSingleRelease | kPromptTeardown);
    subscribe([](MQTTAsync_message*, const std::string&) {}, "a");
    Access::holdProcessor(*client);
    for (int i = 0; i < 3; ++i) paho.deliver("a", "12345");
    client->EmergencyClear();
    EXPECT_TRUE(log.has(error("Emergency clear: 3u messages cleared, 15u bytes freed")))
        << testing::PrintToString(log.lines().back().text);
    EXPECT_EQ(client->GetMemoryUsage(), 0u);
    paho.deliver("a", "12345");
    EXPECT_TRUE(eventually([&] { return client.use_count() == 1; }));
    client.reset();
}

TEST_F(MqttSafeguardTest, GoesOnTryingWhateverFailsBeforePahoAnswers)
{
    paho.script("create", MQTTASYNC_FAILURE);
    setSafeguards(kKeepTrying | kPromptTeardown);
    create();
    paho.script("create", MQTTASYNC_FAILURE);  // of the first reconnection
    paho.script("connect", MQTTASYNC_OPERATION_INCOMPLETE);
    client->Connect([this](int code) { return results.add(code); }, {});
    EXPECT_TRUE(eventually(
        [&] {
            return results.all() == std::vector<int>{MQTTASYNC_OPERATION_INCOMPLETE, 0};
        },
        60s))
        << testing::PrintToString(results.all());
    for (const char* const reason :
         {"connect without a handle", "failure to make a handle", "connect refusal"})
        EXPECT_EQ(log.countPrefix("Scheduling reconnection after " + std::string(reason)), 1u) << reason;
    EXPECT_TRUE(client->IsConnected());
}

TEST_F(MqttSafeguardTest, EndsAndStartsOverWithoutAWaitForAnAnswerThatCannotCome)
{
    guardAndConnect(kPromptTeardown | kPinProtocol);
    {
        const std::lock_guard<std::recursive_mutex> lock(paho.paho_mutex);
        EXPECT_EQ(paho.handles[paho.newest].connect.MQTTVersion, MQTTVERSION_3_1_1);
    }
    paho.script("disconnect", MQTTASYNC_DISCONNECTED);
    paho.loseConnection("a test");
    EXPECT_TRUE(eventually([&] { return results.all() == std::vector<int>{0, 0}; }));
    EXPECT_TRUE(eventually([&] { return client.use_count() == 1; }));
    client.reset();
    EXPECT_FALSE(log.has(warning("Disconnect timeout, forcing destroy")));
    EXPECT_TRUE(log.has(information("disconnect mqtt successed")))
        << "where an answer comes, it is waited for";
}

TEST_F(MqttSafeguardTest, SubscribesAgainAtTheHighestQosAskedForAndTellsOfARefusal)
{
    guardAndConnect(kKeepQos | kPromptTeardown);
    subscribe({}, "never", 0);
    for (const int qos : {0, 2, 1}) subscribe({}, "both", qos);
    subscribe({}, "gone", 2);
    client->Unsubscribe("gone");
    paho.calls.clear();
    paho.loseConnection("a test");
    EXPECT_TRUE(eventually([&] { return paho.calls.countPrefix("subscribe") == 2; }));
    EXPECT_EQ(paho.calls.count("subscribe never 0") + paho.calls.count("subscribe both 2"), 2u);
    paho.refuseSubscription("both");
    EXPECT_TRUE(log.has(error("Failed to resubscribe topic both, return code 128")));
}

TEST(TopicTreeTest, MatchesAsTheStandardHasIt)
{
    const std::vector<std::string> filters = {"#",       "+",     "/+",    "+/+",    "a/#",
                                              "a/+",     "a/+/c", "+/b/#", "$SYS/#", "$SYS/+",
                                              "a/b/c/#", "a/+/#", "/",     "a+/x",   "a/b"};
    const std::vector<std::pair<std::string, std::set<std::string>>> rows = {
        {"a", {"#", "+", "a/#"}},
        {"a/b", {"#", "+/+", "a/#", "a/+", "+/b/#", "a/+/#", "a/b"}},
        {"a/b/c", {"#", "a/#", "a/+/c", "+/b/#", "a/b/c/#", "a/+/#"}},
        {"a/b/d", {"#", "a/#", "+/b/#", "a/+/#"}},
        {"a/", {"#", "+/+", "a/#", "a/+", "a/+/#"}},
        {"/a", {"#", "+/+", "/+"}},
        {"/", {"#", "+/+", "/+", "/"}},
        {"", {"#", "+"}},
        {"$SYS/x", {"$SYS/#", "$SYS/+"}},
        {"$SYS", {"$SYS/#"}},
        {"abc", {"#", "+"}},
        {"a+/x", {"#", "+/+", "a+/x"}},
    };
    detail::TopicTree<std::string> tree;
    for (const std::string& filter : filters) tree.add(filter, &filter);
    const auto found = [&](const std::string& topic) {
        std::multiset<std::string> all;
        tree.match(topic, [&](const std::string& filter) { all.insert(filter); });
        return all;
    };
    for (const auto& [topic, expected] : rows)
        EXPECT_EQ(found(topic), std::multiset<std::string>(expected.begin(), expected.end())) << topic;
    tree.remove("a/+");
    tree.remove("a/+/never");
    EXPECT_EQ(found("a/b").count("a/+/#"), 1u) << "what lies below stays";
    EXPECT_EQ(found("a/b").count("a/+"), 0u);
    for (const std::string& filter : filters) tree.remove(filter);
    EXPECT_TRUE(found("a/b").empty());
}

TEST_F(MqttSafeguardTest, HandsAMessageToEveryFilterThatMatches)
{
    guardAndConnect(kTopicMatching | kPromptTeardown);
    test::Recorder<std::string> got;
    for (const char* const filter : {"a/b", "a/+", "#", "a/b/#", "+/c", "a/+"})
        subscribe([&got, filter](MQTTAsync_message*, const std::string&) { got.add(filter); }, filter);
    paho.deliver("a/b", "x");
    EXPECT_TRUE(eventually([&] { return got.all().size() == 5; }));
    EXPECT_EQ(got.count("a/+"), 2u) << "each handler of a filter";
    EXPECT_EQ(got.count("+/c"), 0u);
    client->Unsubscribe("a/+");
    paho.deliver("a/b", "x");
    EXPECT_TRUE(eventually([&] { return got.all().size() == 8; }));
    EXPECT_EQ(got.count("a/+"), 2u);
}

TEST_F(MqttSafeguardTest, TheLastReferenceMayGoOnAnyThread)
{
    setSafeguards(kAllSafeguards);
    const auto ended = [&] {
        return eventually([&] { return log.count(information("destroy mqtt client")) == 1; });
    };
    const auto begin = [&] {
        connect();
        return std::make_shared<std::shared_ptr<MqttClient>>(std::move(client));
    };
    {
        SCOPED_TRACE("a handler");
        auto last = begin();
        (*last)->Subscribe([last](MQTTAsync_message*, const std::string&) { last->reset(); }, "a", 0);
        ASSERT_TRUE(eventually([&] { return log.countPrefix("Success to subscribe topic a,") == 1; }));
        EXPECT_TRUE(eventually([&] { return last->use_count() == 1; }));
        paho.deliver("a", "x");
        EXPECT_TRUE(ended());
    }
    {
        SCOPED_TRACE("a callback of Paho's");
        log.clear();
        auto last = begin();
        (*last)->Connect({}, [last](const std::string&) {
            last->reset();
            return true;
        });
        EXPECT_TRUE(
            eventually([&] { return log.countPrefix("Re-subscribing") == 2 && last->use_count() == 1; }));
        paho.loseConnection("a test", false);
        EXPECT_TRUE(ended());
    }
    {
        SCOPED_TRACE("the control thread");
        log.clear();
        create();
        std::promise<void> gone;
        log.setHook([&, hold = gone.get_future().share()](const test::LogLine& line) {
            if (line == information("Start connecting async mqtt client")) hold.wait();
        });
        client->Connect({}, {});
        client.reset();
        gone.set_value();
        EXPECT_TRUE(ended());
    }
    {
        SCOPED_TRACE("while a handler goes on with the client");
        log.clear();
        connect();
        std::atomic<bool> entered{false};
        subscribe(
            [&, plain = client.get()](auto*, const auto&) {
                entered = true;
                EXPECT_TRUE(logged(information("mqtt ~Impl")));
                plain->Subscribe([](MQTTAsync_message*, const std::string&) {}, "late", 0);
                plain->Connect({}, {});
            },
            "b");
        paho.deliver("b", "x");
        EXPECT_TRUE(eventually([&] { return entered.load(); }));
        client.reset();
        EXPECT_TRUE(ended());
        EXPECT_TRUE(eventually([] { return Access::busyThreads() == 0; }));
        EXPECT_EQ(log.countPrefix("Subscribe call #"), 1u);
    }
}

TEST_F(MqttSafeguardTest, APublishKeepsItsHandleWhileReconnectionsReplaceIt)
{
    guardAndConnect(kAllSafeguards);
    // Paho's thread publishes too, with Paho's mutex, for which whoever replaces the handle waits.
    client->Connect(
        [this](int code) {
            EXPECT_TRUE(client->PublishMessage("x", "from a callback", 0, 0, 0));
            return results.add(code);
        },
        {});
    std::atomic<bool> publishing{true};
    std::vector<std::thread> threads;
    for (int i = 0; i < 2; ++i)
        threads.emplace_back([&] {
            while (publishing) client->PublishMessage("x", "t", 0, 0, 0);
        });
    for (std::size_t i = 2; i <= 5; ++i) {
        EXPECT_TRUE(eventually([&] { return results.all().size() == i && client->IsConnected(); }));
        paho.loseConnection("a test");
    }
    publishing = false;
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(paho.lost_sends, 0);
    EXPECT_EQ(paho.calls.count("send from a callback 0 0"), 4u);
}

}  // namespace
}  // namespace kro
