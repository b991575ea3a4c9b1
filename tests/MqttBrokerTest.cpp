// The client against a real broker on a loopback port.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "MqttClient++.h"
#include "Safeguards.h"
#include "support/Broker.h"
#include "support/Eventually.h"
#include "support/LogCapture.h"
#include "support/MqttClientAccess.h"
#include "support/Recorder.h"

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
using test::eventually;
using test::information;

class MqttBrokerTest : public testing::Test
{
protected:
    MqttBrokerTest() { log.clear(); }
    ~MqttBrokerTest() override
    {
        endClients();
        setSafeguards(0);
    }
    MqttClient& join(const std::string& id)
    {
        clients.push_back(MqttClient::createInstance(broker.uri(), id, "user", "secret"));
        clients.back()->Connect({}, {});
        return *clients.back();
    }
    void endClients()
    {
        for (const auto& client : clients)  // none that an attempt still holds, which would end it later
            EXPECT_TRUE(eventually([&] { return client.use_count() == 1; }, 60s));
        clients.clear();
    }
    /// Subscribes while connected and waits until Paho has taken the request.
    void subscribe(MqttClient& client, const MqttClient::MessageHandler& handler, const std::string& filter)
    {
        const auto taken = information("Success to subscribe topic " + filter + ", return code 0");
        const std::size_t before = log.count(taken);
        ASSERT_TRUE(eventually([&] { return client.IsConnected(); }, 60s));
        client.Subscribe(handler, filter, 2);
        ASSERT_TRUE(eventually([&] { return log.count(taken) > before; }));
    }

    test::LogCapture& log = test::LogCapture::instance();
    test::Broker broker;
    std::vector<std::shared_ptr<MqttClient>> clients;
    test::Recorder<std::string> received;  // payloads, each with its QoS behind it
    std::atomic<std::size_t> got{0};
    const MqttClient::MessageHandler count = [this](MQTTAsync_message*, const std::string&) { ++got; };
};

TEST_F(MqttBrokerTest, CarriesMessagesOfEveryQosBetweenTwoClientsOfOneProcess)
{
    MqttClient& sender = join("sender");
    MqttClient& receiver = join("receiver");
    // Past the re-subscription of the first connect, which would ask for QoS 1 behind the subscription below.
    ASSERT_TRUE(eventually(
        [&] { return log.count(information("Re-subscribing after reconnection, count: 0")) == 2; }));
    const auto record = [this](MQTTAsync_message* message, const std::string&) {
        const auto* const bytes = static_cast<char*>(message->payload);
        received.add(std::string(bytes, bytes + message->payloadlen) + std::to_string(message->qos));
    };
    subscribe(receiver, record, "data/#");
    const std::string payload(100000, '\0');
    for (const int qos : {0, 1, 2}) {
        EXPECT_TRUE(sender.PublishMessage(payload, "data/x", qos, 0, 0));
        EXPECT_TRUE(eventually([&] { return received.count(payload + std::to_string(qos)) == 1; })) << qos;
    }
}

TEST_F(MqttBrokerTest, ComesBackWithItsSubscriptionsWhenTheBrokerWasKilled)
{
    MqttClient& phoenix = join("phoenix");
    subscribe(phoenix, count, "again/+/x");
    broker.kill();
    ASSERT_TRUE(eventually([&] { return !phoenix.IsConnected(); }, 60s));
    broker.start();
    ASSERT_TRUE(
        eventually([&] { return log.has(information("Success to resubscribe topic again/+/x")); }, 90s));
    // The request is Paho's by now; the broker has it soon after.
    EXPECT_TRUE(eventually([&] {
        broker.publish("-t again/2/x -m two");
        return got > 0;
    }));
    // Messages may still be on their way, and a client that ends with one queued ends the process. Twice, as the second
    // call waits for a message that Paho is just handing over.
    for (int i = 0; i < 2; ++i) phoenix.Unsubscribe("again/+/x");
    EXPECT_TRUE(eventually([&] { return phoenix.GetQueueSize() == 0; }));
}

// ---- With all safeguards ----

class GuardedMqttBrokerTest : public MqttBrokerTest
{
protected:
    GuardedMqttBrokerTest() { setSafeguards(kAllSafeguards); }
};

TEST_F(GuardedMqttBrokerTest, LosesNothingOfAFloodUncountedAndReleasesAll)
{
    constexpr std::size_t kMessages = 100000;  // for each of two clients
    const auto slowly = [this](MQTTAsync_message*, const std::string&) {
        std::this_thread::sleep_for(1ms);
        ++got;
    };
    for (const char* const id : {"one", "two"}) subscribe(join(id), slowly, "flood");
    broker.publish("-q 1 -t flood -m x --repeat " + std::to_string(kMessages));
    const auto settled = [this] {
        return got + clients[0]->GetDroppedMessages() + clients[1]->GetDroppedMessages();
    };
    EXPECT_TRUE(eventually([&] { return settled() == 2 * kMessages; }, 150s)) << settled();
    EXPECT_EQ(clients[0]->GetMemoryUsage() + clients[1]->GetMemoryUsage(), 0u);
    EXPECT_EQ(log.countPrefix("exception: "), 0u) << "the pool had a thread for each place";
    endClients();
    EXPECT_TRUE(eventually([] { return MqttClientTestAccess::busyThreads() == 0; }));
}

TEST_F(GuardedMqttBrokerTest, OutlivesDisconnectsAndFiftyRestartsOfTheBrokerUnderLoad)
{
    MqttClient& phoenix = join("phoenix");
    phoenix.Subscribe(count, "load/#", 1);
    std::atomic<bool> publishing{true};
    std::thread load([&] {
        for (int i = 0; publishing; ++i) {
            const bool sent = phoenix.PublishMessage("x", "load/" + std::to_string(i % 7), i % 3, 0, 0);
            if (!sent || i % 100 == 0) std::this_thread::sleep_for(1ms);
        }
    });
    for (int i = 0; i < 50; ++i) {
        if (i % 10 == 0) {  // while Paho is still at the disconnect it takes no new attempt
            phoenix.Disconnect();
            phoenix.Connect({}, {});
        }
        const auto before = got.load();
        EXPECT_TRUE(eventually([&] { return got > before; }, 90s)) << "restart " << i;
        broker.kill();
        broker.start();
    }
    publishing = false;
    load.join();
    endClients();
    EXPECT_EQ(log.count(information("Success to create async mqtt client")),
              log.count(information("destroy mqtt client")));
}

TEST_F(GuardedMqttBrokerTest, EndsAtAnyMomentWhileMessagesArrive)
{
    MqttClient& sender = join("sender");
    // Paho notices a new connection when its thread comes back from waiting for the others, for up to a second: the
    // sender's own messages keep it from that.
    subscribe(sender, {}, "x/y");
    std::atomic<bool> publishing{true};
    std::thread load([&] {
        // No faster than Paho sends: it queues without a limit.
        for (; publishing; std::this_thread::sleep_for(200us)) sender.PublishMessage("{}", "x/y", 0, 0, 0);
    });
    for (int i = 0; i < 500; ++i) {
        const auto client =
            MqttClient::createInstance(broker.uri(), "short" + std::to_string(i), "user", "secret");
        client->Connect({}, {});
        client->Subscribe([this](const Poco::JSON::Object&, const std::string&) { ++got; }, "x/+", i % 3);
        // At every step of its life: from before the attempt to the midst of the messages.
        const auto until = got + static_cast<std::size_t>(i % 5);
        EXPECT_TRUE(i % 3 == 0 || eventually([&] { return client->IsConnected(); })) << i;
        EXPECT_TRUE(i % 3 < 2 || eventually([&] { return got >= until; })) << i;
    }
    publishing = false;
    load.join();
    EXPECT_GT(got, 0u);
}

}  // namespace
}  // namespace kro
