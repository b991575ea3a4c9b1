// The client's life, connection, subscriptions and publishing, on a fake of Paho that can be made to fail.
#include "MqttClient++.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <stdexcept>
#include <thread>

#include "Backoff.h"
#include "support/MqttFixture.h"

namespace kro
{
namespace
{
using namespace std::chrono_literals;
using test::error;
using test::eventually;
using test::information;
using test::warning;

class MqttClientTest : public test::MqttFixture
{
protected:
    /// Blocks all 32 threads of the shared pool: handlers of one message, subscribed 32 times.
    void fillPool()
    {
        for (int i = 0; i < 32; ++i) subscribe([held = opened](auto*, const auto&) { held.wait(); }, "hold");
        ASSERT_TRUE(eventually([] { return Access::busyThreads() == 0; }));
        paho.deliver("hold", "x");
        ASSERT_TRUE(eventually([&] { return *impl().in_flight_handlers == 32; }));
    }
    std::promise<void> gate;
    std::shared_future<void> opened = gate.get_future().share();
};

// ---- Creation and connecting ----

TEST_F(MqttClientTest, ConnectsThroughEveryStepInOrder)
{
    connect();
    MQTTAsync_connectOptions options{};
    paho.fire([&](auto& handle) { options = handle.connect; });
    EXPECT_EQ(options.keepAliveInterval, 90);
    EXPECT_EQ(options.connectTimeout, 20);
    EXPECT_STREQ(options.username, "user");
    EXPECT_STREQ(options.password, "secret");
    EXPECT_EQ(options.cleansession, 1);
    EXPECT_EQ(options.automaticReconnect, 0);
    EXPECT_EQ(options.MQTTVersion, 0);
    EXPECT_EQ(paho.calls.all(),
              (std::vector<std::string>{"create tcp://broker:1883 station 1", "setCallbacks", "connect"}));
    // Paho's answer may overtake the line that the attempt was started.
    ASSERT_TRUE(logged(information("Connect operation started successfully")));
    auto lines = log.lines();
    lines.erase(std::find(lines.begin(), lines.end(), information("Connect operation started successfully")));
    EXPECT_EQ(lines, (std::vector{information("Success to create async mqtt client"),
                                  information("Success to set callbacks."),
                                  information("Start connecting async mqtt client"),
                                  information("MQTT connection established successfully"),
                                  information("Re-subscribing after reconnection, count: 0")}));
    EXPECT_TRUE(client->IsConnected());
    EXPECT_EQ(client->getstation(), "station");
    client->Connect([this](int code) { return results.add(code); }, {});
    EXPECT_TRUE(eventually([&] {
        return results.all() == std::vector{0, 0};
    })) << "no test of the present state";
}

TEST_F(MqttClientTest, StartsNoProcessorBehindTheEndOfItsClient)
{
    connect();
    // A reconnection is past its last look at the flag when the client ends.
    Access::Impl& own = impl();
    std::atomic<bool> creating{false};
    paho.onCall("create", [&] {
        creating = true;
        EXPECT_TRUE(eventually([&] { return !own.processor_started; }));
    });
    paho.loseConnection("gone");
    ASSERT_TRUE(eventually([&] { return creating.load(); }));
    client.reset();
    EXPECT_EQ(paho.calls.count("destroy"), 2u);
}

TEST_F(MqttClientTest, StopsAReconnectionThatMeetsTheEndOfItsClient)
{
    connect();
    auto ended = std::make_shared<std::promise<void>>();
    paho.onCall("destroy", [&, first = true]() mutable {
        if (!std::exchange(first, false)) return;
        std::thread([&, ended] { client.reset(), ended->set_value(); }).detach();
        EXPECT_TRUE(logged(information("mqtt ~Impl")));
    });
    paho.loseConnection("gone");
    ended->get_future().wait();
    EXPECT_TRUE(log.has(information("Stop reconnect flag set after cleanup, aborting client creation")));
    EXPECT_EQ(paho.calls.countPrefix("create"), 1u);
}

TEST_F(MqttClientTest, StaysWithoutAHandleWhenPahoRefusesToMakeOne)
{
    for (const std::string step : {"create", "setCallbacks"}) {
        SCOPED_TRACE(step);
        log.clear();
        paho.script(step, -7);
        create();
        EXPECT_TRUE(log.has(error(step == "create" ? "Failed to create async mqtt client, return code -7"
                                                   : "Failed to set callbacks, return code -7")));
        EXPECT_EQ(paho.calls.count("destroy"), step == "create" ? 0u : 1u);
        client->Connect([this](int code) { return results.add(code); }, {});
        EXPECT_TRUE(logged(error("async mqtt client is nullptr.")));
        client->Disconnect();
        EXPECT_TRUE(log.has(error("Failed to disconnect, async_client is null")));
        client->Subscribe([](MQTTAsync_message*, const std::string&) {}, "a", 0);
        EXPECT_TRUE(logged(error("Failed to subscribe topic a, async_client is null")));
        client->Unsubscribe("a");
        EXPECT_TRUE(log.has(error("Failed to unsubscribe topic=a, mqtt client is null")));
        EXPECT_EQ(impl().subscribe_map.size(), 1u) << "stays without a handle to unsubscribe with";
        EXPECT_FALSE(client->PublishMessage("x", "a", 0, 0, 0));
        client.reset();
    }
    EXPECT_TRUE(results.all().empty());
}

TEST_F(MqttClientTest, TellsTheHostWhenAnAttemptCannotBeStartedAndSchedulesNothing)
{
    create();
    paho.script("connect", -9);
    client->Connect(
        [this](int code) {
            results.add(code);
            if (code == -9) throw std::runtime_error("from the host");
            return true;
        },
        {});
    ASSERT_TRUE(eventually([&] { return results.all() == std::vector{-9, -1}; }));
    EXPECT_TRUE(log.has(error("Failed to start connect, return code -9")));
    EXPECT_TRUE(log.has(error("Connect exception: from the host")));
    EXPECT_EQ(impl().connection_state, Disconnected);
    EXPECT_EQ(log.countPrefix("Scheduling reconnection"), 0u);
}

TEST_F(MqttClientTest, StaysInConnectingWhenThePoolIsFull)
{
    connect();
    fillPool();
    client->Connect({}, {});
    EXPECT_TRUE(logged(error("Control task exception: No thread available")));
    EXPECT_TRUE(log.has(error("exception: No thread available")));
    EXPECT_EQ(impl().connection_state, Connecting);
    // A subscription that meets the same pool is done on the caller's thread.
    client->Subscribe([](MQTTAsync_message*, const std::string&) {}, "late", 2);
    EXPECT_TRUE(log.has(information("mqtt subscribe exception: No thread available")));
    EXPECT_EQ(paho.calls.count("subscribe late 2"), 1u);
    gate.set_value();
}

TEST_F(MqttClientTest, ConnectOnAClientWithoutASharedPtrThrowsWithTheCallbacksStored)
{
    MqttClient plain("tcp://broker:1883", "", "", "");
    EXPECT_THROW(plain.Connect([](int) { return true; }, {}), std::bad_weak_ptr);
    EXPECT_TRUE(Access::impl(plain).connect_callback);
}

using MqttClientDeathTest = MqttClientTest;

TEST_F(MqttClientDeathTest, LastReferenceDroppedOnTheControlThreadEndsTheProcess)
{
    EXPECT_DEATH(
        {
            create();
            // With the pool full no attempt shares the client.
            for (int i = 0; i < 32; ++i) Access::pool().start([held = opened] { held.wait(); });
            std::promise<void> dropped;
            log.setHook([&](const test::LogLine& line) {
                if (line.text == "exception: No thread available") dropped.get_future().wait();
            });
            client->Connect({}, {});
            client.reset();
            dropped.set_value();
            std::this_thread::sleep_for(20s);
        },
        "Resource deadlock avoided|deadlock would occur");
}

// ---- Reconnecting ----

TEST(BackoffTest, GrowsLinearlyToAMinuteBehindAShortStart)
{
    const struct
    {
        int failures, quick_ms, slow_ms;
    } rows[] = {{1, 1000, 0},       {2, 1000, 2000},    {3, 3000, 4000},           {4, 3000, 6000},
                {5, 3000, 8000},    {6, 10000, 10000},  {7, 12000, 12000},         {30, 58000, 58000},
                {31, 60000, 60000}, {32, 60000, 60000}, {2000000000, 60000, 60000}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.failures);
        EXPECT_EQ(detail::backoffDelayMs(row.failures, true, 1000), row.quick_ms);
        EXPECT_EQ(detail::backoffDelayMs(row.failures, false, 1000), row.slow_ms);
    }
}

/// The delay in the first line that begins and ends so, or -1.
int scheduledDelay(const std::string& before, const std::string& after)
{
    for (const auto& line : test::LogCapture::instance().lines()) {
        if (line.level == Poco::Message::PRIO_ERROR && line.text.compare(0, before.size(), before) == 0 &&
            line.text.size() > after.size() &&
            line.text.compare(line.text.size() - after.size(), after.size(), after) == 0)
            return std::stoi(line.text.substr(before.size()));
    }
    return -1;
}

TEST_F(MqttClientTest, ReconnectsThroughANewHandleAndSubscribesAgainAtQos1)
{
    connect();
    subscribe([](auto*, const auto&) {}, "a/b", 2);
    paho.loseConnection(nullptr);
    EXPECT_FALSE(client->IsConnected());
    EXPECT_EQ(losses.all(), std::vector<std::string>{""});
    EXPECT_TRUE(log.has(error("MQTT connection lost: unknown")));
    const int delay_ms = scheduledDelay("Scheduling reconnection after connection lost in ",
                                        " ms, failure count: 1, quick_retry: true");
    EXPECT_GE(delay_ms, 1000);
    EXPECT_LE(delay_ms, 1200);
    EXPECT_TRUE(logged(information("Success to resubscribe topic a/b")));
    EXPECT_EQ(paho.calls.count("subscribe a/b 1"), 1u);
    EXPECT_EQ(results.all(), (std::vector{0, 0}));
    const auto calls = paho.calls.all();
    const std::vector<std::string> replaced{"setCallbacks null", "disconnect 5000",
                                            "destroy",           "create tcp://broker:1883 station 1",
                                            "setCallbacks",      "connect"};
    EXPECT_NE(std::search(calls.begin(), calls.end(), replaced.begin(), replaced.end()), calls.end());
    EXPECT_EQ(impl().failure_count, 0);
    EXPECT_FALSE(impl().quick_retry);
}

TEST_F(MqttClientTest, CountsEveryFailureAndTakesTheLongTableAfterAnHour)
{
    paho.answer_connects = false;
    create();
    // A callback keeps its state from call to call.
    client->Connect([this, told = 0](int code) mutable { return results.add(code + 100 * told++); }, {});
    ASSERT_TRUE(eventually([&] { return paho.calls.count("connect") == 1; }));
    const auto now = std::chrono::steady_clock::now();
    impl().last_connected_at = now - 3600s;
    MQTTAsync_failureData refused{};
    refused.code = 5;
    paho.connectFails(&refused);
    EXPECT_EQ(scheduledDelay("Scheduling reconnection after connect failure in ",
                             " ms, failure count: 1, quick_retry: false"),
              0);
    ASSERT_TRUE(eventually([&] { return paho.calls.count("connect") == 2; })) << "at once, with a new handle";

    impl().last_connected_at = now - 3500s;
    paho.connectFails(nullptr);
    EXPECT_GE(scheduledDelay("Scheduling reconnection after connect failure in ",
                             " ms, failure count: 2, quick_retry: true"),
              1000);
    impl().last_connected_at = now - 4000s;
    paho.loseConnection("once more");
    EXPECT_GE(scheduledDelay("Scheduling reconnection after connection lost in ",
                             " ms, failure count: 3, quick_retry: true"),
              3000)
        << "the short table holds until a success";
    EXPECT_EQ(results.all(), (std::vector{5, 99}));

    ASSERT_TRUE(eventually([&] { return paho.calls.count("connect") == 3; }));
    paho.connectSucceeds();
    EXPECT_TRUE(logged(information("Connection state changed during delay, skipping reconnection")))
        << "the second task, sorted out";
    EXPECT_EQ(impl().failure_count, 0);
}

TEST_F(MqttClientTest, DropsAReconnectionWhereNoneIsNeededAndKeepsOneAcrossADisconnect)
{
    connect();
    Access::schedule(*client);
    EXPECT_TRUE(logged(information("Already connected, skipping reconnection")));
    paho.answer_connects = false;
    paho.loseConnection("gone");
    client->Disconnect();  // does not cancel what is scheduled
    ASSERT_TRUE(eventually([&] { return paho.calls.count("connect") == 2; }));
    Access::schedule(*client);
    EXPECT_TRUE(logged(information("Connection state changed during delay, skipping reconnection")))
        << "it is left to the one that owns it";
    EXPECT_EQ(paho.calls.countPrefix("create"), 2u);
}

TEST_F(MqttClientTest, EndsReconnectingWhenPahoRefusesUntilTheHostConnects)
{
    connect();
    paho.script("connect", -3);
    paho.loseConnection("gone");
    EXPECT_TRUE(logged(error("Failed to start connect, return code -3")));
    EXPECT_TRUE(impl().reconnecting) << "left set, as the settled end of reconnecting";
    client->Connect({}, {});
    EXPECT_TRUE(eventually([&] { return client->IsConnected() && !impl().reconnecting; }));
    paho.script("create", -1);
    paho.loseConnection("gone");
    EXPECT_TRUE(logged(error("Failed to create async mqtt client, return code -1")));
    EXPECT_TRUE(eventually([&] { return !impl().reconnecting && impl().connection_state == Disconnected; }));
    client->Connect({}, {});
    EXPECT_TRUE(logged(error("async mqtt client is nullptr."))) << "Connect makes no handle";
}

TEST_F(MqttClientTest, ResubscribesOnlyWhileTheLinkIsUp)
{
    connect();
    subscribe([](auto*, const auto&) {}, "a", 0);
    subscribe([](auto*, const auto&) {}, "b", 0);
    paho.script("subscribe", -2);
    paho.connectSucceeds();
    EXPECT_TRUE(eventually([&] { return log.countPrefix("Failed to resubscribe topic ") == 1; }));
    EXPECT_TRUE(eventually([&] { return log.countPrefix("Success to resubscribe topic ") == 1; }));

    // The link goes between the success and its task, and then between two topics: while the first one's line is
    // written, client_mutex is held, and the next topic sees the loss at its first test.
    log.setHook([&](const test::LogLine& line) {
        if (line == information("MQTT connection established successfully"))
            impl().connection_state = Connecting;
    });
    paho.connectSucceeds();
    EXPECT_TRUE(logged(error("Connection lost before re-subscription could start")));
    log.setHook([&](const test::LogLine& line) {
        if (line.text.rfind("Success to resubscribe topic ", 0) == 0) impl().connection_state = Disconnected;
    });
    const auto before = paho.calls.countPrefix("subscribe");
    paho.connectSucceeds();
    std::promise<void> done;  // by a control task behind the re-subscription
    impl().PostControlTask([&] { done.set_value(); });
    done.get_future().wait();
    EXPECT_EQ(paho.calls.countPrefix("subscribe"), before + 1);
}

TEST_F(MqttClientTest, EndsALongDelayAtOnceWhenItIsDestroyed)
{
    connect();
    impl().failure_count = 50;
    paho.loseConnection("gone");
    EXPECT_GE(scheduledDelay("Scheduling reconnection after connection lost in ",
                             " ms, failure count: 51, quick_retry: true"),
              60000);
    // The task has been taken, and sits in its wait or is about to: a minute, if nothing woke it.
    ASSERT_TRUE(eventually([&] {
        const std::lock_guard<std::mutex> lock(impl().control_mutex);
        return impl().control_tasks.empty();
    }));
    auto ended = std::async(std::launch::async, [&] { client.reset(); });
    EXPECT_EQ(ended.wait_for(30s), std::future_status::ready);
    EXPECT_EQ(paho.calls.count("connect"), 1u);
}

// ---- Subscriptions ----

TEST_F(MqttClientTest, RemembersASubscriptionMadeWithoutAConnection)
{
    create();
    client->Subscribe([](MQTTAsync_message*, const std::string&) {}, "early", 2);
    EXPECT_TRUE(logged(error("Failed to subscribe topic early, async_client is not connected")));
    client->Connect({}, {});
    EXPECT_TRUE(logged(information("Success to resubscribe topic early")));
}

TEST_F(MqttClientTest, KeepsOneHandlerForEachCallAndForgetsThemTogether)
{
    connect();
    subscribe([](auto*, const auto&) {}, "t", 0);
    paho.script("subscribe", -5);
    subscribe([](auto*, const auto&) {}, "t", 2);
    EXPECT_TRUE(log.has(error("Failed to subscribe topic t, return code -5")));
    EXPECT_EQ(impl().subscribe_map.at("t").size(), 2u) << "a refusal by Paho loses nothing";
    paho.script("unsubscribe", -6);
    client->Unsubscribe("t");
    EXPECT_TRUE(log.has(error("Failed to unsubscribe topic t, return code -6")));
    EXPECT_TRUE(impl().subscribe_map.empty()) << "forgotten although the broker could not be told";
    subscribe([](auto*, const auto&) {}, "u", 0);
    impl().connected = false;
    client->Unsubscribe("u");
    EXPECT_EQ(paho.calls.count("unsubscribe u"), 0u);
    EXPECT_TRUE(impl().subscribe_map.empty());
}

TEST_F(MqttClientTest, HandsOnlyJsonObjectsToJsonHandlersAndAsksTheGate)
{
    connect();
    test::Recorder<std::string> seen, asked;
    client->Subscribe(
        [&](const Poco::JSON::Object& object, const std::string& topic) {
            seen.add(topic + object.optValue<std::string>("k", ""));
        },
        "j", 2);
    ASSERT_TRUE(logged(information("Success to subscribe topic j, return code 0")));
    std::atomic<unsigned char> verdict{1};
    client->setMsgFwdHandlerCallback([&](const Poco::JSON::Object&, std::string topic, int qos) {
        asked.add(topic + std::to_string(qos));
        return verdict.load();
    });
    // The raw handler behind the JSON one tells that the message has been handed out.
    std::atomic<int> handed_out{0};
    subscribe([&](auto*, const auto&) { ++handed_out; }, "j", 0);
    const auto linesFor = [&](const std::string& payload) {
        log.clear();
        const int before = handed_out;
        paho.deliver("j", payload);
        EXPECT_TRUE(eventually([&] { return handed_out > before && *impl().in_flight_handlers == 0; }));
        return log.lines();
    };
    EXPECT_TRUE(linesFor(R"({"k":"v"})").empty());
    EXPECT_EQ(asked.all(), std::vector<std::string>{"j2"});
    verdict = 2;
    EXPECT_TRUE(linesFor(R"({"k":"v"})").empty()) << "1 alone lets a message through";
    EXPECT_TRUE(linesFor("").empty()) << "an empty payload is passed over in silence";
    for (const char* const bad : {"[1,2]", "{broken"}) {
        const auto lines = linesFor(bad);
        ASSERT_EQ(lines.size(), 1u) << bad;
        EXPECT_EQ(lines[0].level, Poco::Message::PRIO_ERROR);
    }
    EXPECT_EQ(seen.all(), std::vector<std::string>{"jv"});
}

// ---- Publishing ----

TEST_F(MqttClientTest, PublishesBytesAsTheyAreAndTellsTheOutcome)
{
    connect();
    const std::string bytes("a\0b\0", 4);
    EXPECT_TRUE(client->PublishMessage(bytes, "out", 2, 1, 77));
    EXPECT_EQ(paho.calls.count("send out 2 1"), 1u);
    EXPECT_EQ(paho.last_payload, bytes);
    MQTTAsync_successData delivered{};
    delivered.token = 12;
    test::Recorder<int> tokens;
    client->SetDeliveryCompleteCallback([&](int token) { tokens.add(token); });
    for (auto* const data : {&delivered, static_cast<MQTTAsync_successData*>(nullptr)})
        paho.fire([data](auto& handle) { handle.publish.onSuccess(handle.publish.context, data); });
    EXPECT_EQ(tokens.all(), (std::vector{12, 0}));
    MQTTAsync_failureData failed{};
    failed.code = -4;
    failed.message = "no room";
    for (auto* const data : {&failed, static_cast<MQTTAsync_failureData*>(nullptr)})
        paho.fire([data](auto& handle) { handle.publish.onFailure(handle.publish.context, data); });
    EXPECT_TRUE(log.has(error("Publish failed, return code -4, topic: no room")));
    EXPECT_TRUE(log.has(error("Publish failed, return code -1, topic: unknown")));
    paho.script("send", -11);
    EXPECT_FALSE(client->PublishMessage("x", "out", 9, 0, 0));
    EXPECT_TRUE(log.has(error("Failed to publish message for topic out, return code -11")));
}

// ---- Teardown ----

TEST_F(MqttClientTest, DisconnectsOnRequestWhateverPahoAnswersAndConnectsAgain)
{
    connect();
    for (const int code : {0, -3}) {
        paho.script("disconnect", code);
        client->Disconnect();
        EXPECT_FALSE(client->IsConnected());
        EXPECT_FALSE(impl().connected);
        client->Connect({}, {});
        EXPECT_TRUE(eventually([&] { return client->IsConnected(); }));
    }
    EXPECT_EQ(paho.calls.count("disconnect 3000"), 2u);
}

TEST_F(MqttClientTest, TearsDownInOrderAndWaitsForARunningHandler)
{
    connect();
    std::promise<void> entered;
    std::atomic<bool> ended{false};
    subscribe(
        [&](auto*, const auto&) {
            entered.set_value();
            opened.wait();
            ended = true;
        },
        "slow");
    paho.deliver("slow", "x");
    entered.get_future().wait();
    log.clear();
    auto destroyed = std::async(std::launch::async, [&] { client.reset(); });
    ASSERT_TRUE(logged(information("mqtt ~Impl")));
    EXPECT_FALSE(ended);
    EXPECT_EQ(paho.calls.countPrefix("disconnect"), 0u) << "Paho is left alone until the handlers are out";
    gate.set_value();
    destroyed.get();
    EXPECT_TRUE(ended);
    EXPECT_EQ(log.lines(), (std::vector{information("mqtt ~Impl"), information("disconnect mqtt successed"),
                                        information("destroy mqtt client")}));
    EXPECT_EQ(paho.calls.all().back(), "destroy");
}

TEST_F(MqttClientTest, ForcesTheEndWhenTheBrokerDoesNotAnswerTheDisconnect)
{
    connect();
    paho.answer_disconnects = false;
    client.reset();
    EXPECT_TRUE(log.has(warning("Disconnect timeout, forcing destroy")));
    EXPECT_EQ(paho.calls.count("destroy"), 1u);
}

TEST_F(MqttClientTest, EndsWhileCallbacksOfPahoStillCome)
{
    for (int round = 0; round < 3; ++round) {
        connect();
        std::atomic<bool> broker_runs{true};
        std::atomic<bool> host_runs{true};
        std::thread broker([&] {
            while (broker_runs) {
                paho.deliver("/krono/x", "{}");  // for nobody: with entries queued the end is the settled one
                paho.loseConnection("again", false);
            }
        });
        std::thread host([alive = client, &host_runs] {
            while (host_runs) {
                static_cast<void>(alive->PublishMessage("x", "out", 0, 0, 0));
                static_cast<void>(alive->GetQueueSize());
            }
        });
        ASSERT_TRUE(eventually([&] { return log.countPrefix("Scheduling reconnection") > 20; }));
        host_runs = false;
        host.join();
        client.reset();
        broker_runs = false;
        broker.join();
        paho.reset();  // the next round's client must not get this one's last loss
        log.clear();
    }
}

}  // namespace
}  // namespace kro
