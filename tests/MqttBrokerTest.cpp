// The client against a real broker on a loopback port.
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "MqttClient++.h"
#include "support/Broker.h"
#include "support/Eventually.h"
#include "support/LogCapture.h"
#include "support/MqttClientAccess.h"
#include "support/WithSafeguards.h"

// Paho 1.3.12 keeps topic and payload of what it had been handed for a link that breaks under load, also when the handle
// is destroyed. (That messages are given back to it is proven on the fake, which counts them.)
extern "C" const char* __lsan_default_suppressions()
{
    return "leak:libpaho-mqtt3a\n";
}

namespace kro
{
namespace
{
using namespace std::chrono_literals;
using test::error;
using test::eventually;
using test::information;

class MqttBrokerTest : public testing::Test
{
protected:
    struct Link
    {
        explicit Link(const test::Broker& broker, const std::string& id,
                      const std::string& password = "secret")
            : client(MqttClient::createInstance(broker.uri(), id, "user", password))
        {
            client->Connect(
                [this](int code) {
                    (code == 0 ? successes : failures).fetch_add(1);
                    return true;
                },
                [this](const std::string&) {
                    ++losses;
                    return true;
                });
        }
        ~Link()
        {
            // An attempt that still holds the client would end it later, and call back into what is gone.
            EXPECT_TRUE(eventually([this] { return client.use_count() == 1; }, 60s));
        }
        std::atomic<int> successes{0}, failures{0}, losses{0};
        std::shared_ptr<MqttClient> client;  // last, so that it ends before what its callbacks count in
    };

    /// Subscribes while connected and waits until Paho has taken the request.
    void subscribe(MqttClient& client, MqttClient::MessageHandler handler, const std::string& filter, int qos)
    {
        client.Subscribe(std::move(handler), filter, qos);
        ASSERT_TRUE(eventually([&] {
            return log.has(information("Success to subscribe topic " + filter + ", return code 0"));
        }));
    }

    MqttBrokerTest() { log.clear(); }

    test::LogCapture& log = test::LogCapture::instance();
    test::Broker broker;
};

TEST_F(MqttBrokerTest, CarriesMessagesOfEveryQosBetweenTwoClientsOfOneProcess)
{
    Link sender(broker, "sender");
    Link receiver(broker, "receiver");
    // Past the re-subscription of the first connect, which would ask for QoS 1 behind the subscription below.
    ASSERT_TRUE(eventually(
        [&] { return log.count(information("Re-subscribing after reconnection, count: 0")) == 2; }));
    std::mutex mutex;
    std::vector<std::pair<std::string, int>> got;
    subscribe(
        *receiver.client,
        [&](MQTTAsync_message* message, const std::string&) {
            const std::lock_guard<std::mutex> lock(mutex);
            got.emplace_back(std::string(static_cast<char*>(message->payload),
                                         static_cast<std::size_t>(message->payloadlen)),
                             message->qos);
        },
        "data/#", 2);
    std::atomic<int> delivered{0};
    sender.client->SetDeliveryCompleteCallback([&](int) { ++delivered; });
    const std::string bytes("a\0b", 3);
    for (const int qos : {0, 1, 2}) {
        EXPECT_TRUE(sender.client->PublishMessage(bytes, "data/x", qos, 0, 0));
        ASSERT_TRUE(eventually([&] {
            const std::lock_guard<std::mutex> lock(mutex);
            return got.size() == static_cast<std::size_t>(qos) + 1;
        }));
        EXPECT_EQ(got.back(), std::make_pair(bytes, qos));
    }
    EXPECT_TRUE(eventually([&] { return delivered == 3; }));
    EXPECT_FALSE(sender.client->PublishMessage("x", "data/x", 7, 0, 0)) << "Paho refuses the QoS";
    EXPECT_EQ(log.countPrefix("Failed to publish message for topic data/x, return code "), 1u);
}

TEST_F(MqttBrokerTest, CarriesPayloadsUpToTheLimitAndDropsWhatIsLarger)
{
    Link link(broker, "large");
    ASSERT_TRUE(eventually([&] { return link.client->IsConnected(); }));
    std::promise<std::string> got;
    subscribe(
        *link.client,
        [&](MQTTAsync_message* message, const std::string&) {
            got.set_value(
                {static_cast<char*>(message->payload), static_cast<std::size_t>(message->payloadlen)});
        },
        "large", 1);
    std::string payload(20971520, 'x');
    payload.front() = payload.back() = '\0';
    EXPECT_TRUE(link.client->PublishMessage(payload, "large", 1, 0, 0));
    auto whole = got.get_future();
    ASSERT_EQ(whole.wait_for(60s), std::future_status::ready);
    EXPECT_TRUE(whole.get() == payload);
    EXPECT_TRUE(link.client->PublishMessage(payload + "y", "large", 1, 0, 0));
    EXPECT_TRUE(eventually([&] { return link.client->GetDroppedMessages() == 1; }, 60s));
}

TEST_F(MqttBrokerTest, GoesOnTryingWithAWrongPassword)
{
    Link link(broker, "stranger", "wrong");
    EXPECT_TRUE(eventually([&] { return link.failures >= 2; }, 60s));
    EXPECT_EQ(link.successes, 0);
    EXPECT_TRUE(log.has(error("MQTT connection failed, return code 5")))
        << "refused: bad user name or password";
    EXPECT_FALSE(link.client->IsConnected());
}

TEST_F(MqttBrokerTest, ComesBackWithItsSubscriptionsWhenTheBrokerWasKilled)
{
    std::atomic<int> got{0};
    Link link(broker, "phoenix");
    ASSERT_TRUE(eventually([&] { return link.client->IsConnected(); }));
    subscribe(
        *link.client, [&](MQTTAsync_message*, const std::string&) { ++got; }, "again/+/x", 2);
    broker.run("mosquitto_pub", "-t again/1/x -m one");
    ASSERT_TRUE(eventually([&] { return got == 1; }));
    broker.kill();
    ASSERT_TRUE(eventually([&] { return link.losses >= 1; }, 60s));
    EXPECT_FALSE(link.client->PublishMessage("x", "out", 1, 0, 0));
    broker.start();
    ASSERT_TRUE(
        eventually([&] { return log.has(information("Success to resubscribe topic again/+/x")); }, 90s));
    ASSERT_TRUE(eventually([&] { return link.client->IsConnected(); }, 60s));
    // The request is Paho's by now; the broker has it soon after.
    EXPECT_TRUE(eventually([&] {
        broker.run("mosquitto_pub", "-t again/2/x -m two");
        return got >= 2;
    }));
    EXPECT_GE(link.successes, 2);
    // Messages may still be on their way, and a client that ends with one queued ends the process. Twice, as the second
    // call waits for a message that Paho is just handing over.
    for (int i = 0; i < 2; ++i) link.client->Unsubscribe("again/+/x");
    EXPECT_TRUE(eventually([&] { return link.client->GetQueueSize() == 0; }));
}

TEST_F(MqttBrokerTest, DropsAndCountsAFloodWhileTheProcessorIsHeldBack)
{
    constexpr std::size_t kEntries = 100000, kMemory = 419430400;
    Link link(broker, "flood");
    ASSERT_TRUE(eventually([&] { return link.client->IsConnected(); }));
    subscribe(
        *link.client, [](MQTTAsync_message*, const std::string&) {}, "flood", 1);
    MqttClientTestAccess::holdProcessor(*link.client);
    broker.run("mosquitto_pub", "-t flood -m x --repeat " + std::to_string(kEntries + 50));
    EXPECT_TRUE(eventually([&] { return link.client->GetDroppedMessages() == 50; }, 90s));
    EXPECT_EQ(link.client->GetQueueSize(), kEntries);
    EXPECT_EQ(link.client->GetMemoryUsage(), kEntries * (5 + 160 + 1));
    EXPECT_EQ(log.count(error("Message queue full, dropping message")), 50u);
    MqttClientTestAccess::release(*link.client);

    const std::size_t cost = 5 + 160 + 20971520;
    broker.run("mosquitto_pub", "-t flood -f " + broker.file(std::string(20971520, 'x')) + " --repeat 21");
    EXPECT_TRUE(eventually([&] { return link.client->GetDroppedMessages() == 50 + 2; }, 90s));
    EXPECT_EQ(link.client->GetMemoryUsage(), kMemory / cost * cost);
    EXPECT_EQ(log.count(error("Memory limit exceeded, dropping message")), 2u);
    EXPECT_TRUE(link.client->IsConnected()) << "a flood costs messages, not the link";
    MqttClientTestAccess::release(*link.client);
}

TEST_F(MqttBrokerTest, DisconnectsAndConnectsAgainOnRequest)
{
    Link link(broker, "visitor");
    ASSERT_TRUE(eventually([&] { return link.client->IsConnected(); }));
    link.client->Disconnect();
    EXPECT_FALSE(link.client->IsConnected());
    // Paho takes no new attempt before the old connection has ended: it is asked until it does.
    EXPECT_TRUE(eventually([&] {
        if (!link.client->IsConnected())
            link.client->Connect([](int) { return true; }, [](const std::string&) { return true; });
        return eventually([&] { return link.client->IsConnected(); }, 500ms);
    }));
    EXPECT_EQ(link.losses, 0);
}

// ---- With all safeguards ----

class GuardedMqttBrokerTest : public MqttBrokerTest
{
protected:
    static std::size_t openFiles()
    {
        const std::filesystem::directory_iterator all("/proc/self/fd");
        return static_cast<std::size_t>(std::distance(begin(all), end(all)));
    }
    test::WithSafeguards all{kAllSafeguards};
};

TEST_F(GuardedMqttBrokerTest, LosesNothingOfAFloodUncountedAndReleasesAll)
{
    constexpr std::size_t kMessages = 100000;  // for each of two clients
    std::atomic<std::size_t> handled{0};
    {
        Link one(broker, "one"), two(broker, "two");
        for (Link* const link : {&one, &two}) {
            ASSERT_TRUE(eventually([&] { return link->client->IsConnected(); }));
            link->client->Subscribe(
                [&](MQTTAsync_message*, const std::string&) {
                    std::this_thread::sleep_for(1ms);
                    ++handled;
                },
                "flood", 1);
        }
        ASSERT_TRUE(eventually(
            [&] { return log.count(information("Success to subscribe topic flood, return code 0")) == 2; }));
        broker.run("mosquitto_pub", "-q 1 -t flood -m x --repeat " + std::to_string(kMessages));
        EXPECT_TRUE(eventually(
            [&] {
                return handled + one.client->GetDroppedMessages() + two.client->GetDroppedMessages() ==
                       2 * kMessages;
            },
            150s))
            << handled;
        for (Link* const link : {&one, &two}) EXPECT_EQ(link->client->GetMemoryUsage(), 0u);
        EXPECT_LE(log.countPrefix("exception: "), 0u) << "the pool had a thread for each place";
    }
    EXPECT_TRUE(eventually([] { return MqttClientTestAccess::busyThreads() == 0; }));
}

TEST_F(GuardedMqttBrokerTest, OutlivesFiftyRestartsOfTheBrokerUnderLoad)
{
    std::atomic<int> got{0};
    const std::size_t files_before = openFiles();
    {
        Link link(broker, "phoenix");
        link.client->Subscribe([&](MQTTAsync_message*, const std::string&) { ++got; }, "load/#", 1);
        std::atomic<bool> publishing{true};
        std::thread load([&] {
            for (int i = 0; publishing; ++i)
                if (!link.client->PublishMessage("x", "load/" + std::to_string(i % 7), i % 3, 0, 0) ||
                    i % 100 == 0)
                    std::this_thread::sleep_for(1ms);
        });
        for (int i = 0; i < 50; ++i) {
            const int before = got;
            EXPECT_TRUE(eventually([&] { return got > before; }, 90s)) << "restart " << i;
            broker.kill();
            broker.start();
        }
        publishing = false;
        load.join();
    }
    EXPECT_EQ(log.count(information("Success to create async mqtt client")),
              log.count(information("destroy mqtt client")));
    EXPECT_TRUE(eventually([&] { return openFiles() <= files_before; })) << openFiles();
}

TEST_F(GuardedMqttBrokerTest, EndsAtAnyMomentWhileMessagesArrive)
{
    Link sender(broker, "sender");
    ASSERT_TRUE(eventually([&] { return sender.client->IsConnected(); }));
    // Paho notices a new connection when its thread comes back from waiting for the others, for up to a second.
    sender.client->Subscribe([](MQTTAsync_message*, const std::string&) {}, "x/y", 0);
    std::atomic<bool> publishing{true};
    std::thread load([&] {
        // No faster than Paho sends: it queues without a limit.
        for (; publishing; std::this_thread::sleep_for(200us))
            sender.client->PublishMessage("{}", "x/y", 0, 0, 0);
    });
    std::atomic<int> got{0};
    for (int i = 0; i < 500; ++i) {
        auto client = MqttClient::createInstance(broker.uri(), "short" + std::to_string(i), "user", "secret");
        client->Connect([](int) { return true; }, [](const std::string&) { return true; });
        client->Subscribe([&](const Poco::JSON::Object&, const std::string&) { ++got; }, "x/+", i % 3);
        // At every step of its life: from before the attempt to the midst of the messages.
        const int until = got + i % 5;
        if (i % 3 > 0) {
            EXPECT_TRUE(eventually([&] { return client->IsConnected(); })) << i;
        }
        if (i % 3 > 1) {
            EXPECT_TRUE(eventually([&] { return got >= until; })) << i;
        }
    }
    publishing = false;
    load.join();
    EXPECT_GT(got, 0);
}

TEST_F(GuardedMqttBrokerTest, ConnectsRightBehindADisconnect)
{
    Link link(broker, "visitor");
    for (int i = 0; i < 5; ++i) {
        EXPECT_TRUE(eventually([&] { return link.client->IsConnected(); }));
        link.client->Disconnect();
        link.client->Connect([](int) { return true; }, [](const std::string&) { return true; });
    }
    EXPECT_TRUE(eventually([&] { return link.client->IsConnected(); }));
}

}  // namespace
}  // namespace kro
