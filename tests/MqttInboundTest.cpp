// The road of an inbound message from Paho's callback to the handler, on a fake of Paho.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <thread>

#include "support/MqttFixture.h"

namespace kro
{
namespace
{
using test::error;
using test::eventually;
using test::information;

class MqttInboundTest : public test::MqttFixture
{
protected:
    void hold()
    {
        connect();
        Access::holdProcessor(*client);
    }
    /// Delivers with nobody consuming. @return the entries that came of it, and leaves the queue empty.
    std::size_t queued(const std::string& topic, const std::string& payload = "x")
    {
        paho.deliver(topic, payload);
        const std::size_t size = client->GetQueueSize();
        Access::release(*client);
        return size;
    }
    const MqttClient::MessageHandler no_work = [](MQTTAsync_message*, const std::string&) {};
    const MQTTAsync_message empty_message = MQTTAsync_message_initializer;
};

TEST_F(MqttInboundTest, KeepsTelemetryAndResponsesOffAClosedLinkAndLogsTheRest)
{
    hold();
    subscribe(no_work, "/krono/#");
    subscribe(no_work, "x/#");
    const std::string response = R"({"api":"go","type":"response"})";
    const std::string request = R"({"api":"go","type":"request"})";
    const struct
    {
        std::string topic, payload;
        bool closed, line;  // delivered with another link type than 1; logged with all of them
    } rows[] = {
        {"x/heartBeat", request, false, false},
        {"/krono/pushTelemetry/1", request, false, false},
        {"/krono/a", R"({"api":"1preUploadedAudioCmd2"})", false, false},
        {"/krono/a", response, false, true},
        {"/krono/a", request, true, true},
        {"/krono/a", R"({"api":null,"type":null})", true, true},  // what doesn't convert is empty
        {"/krono/a", "{broken", true, false},
        {"/kronoX/a", response, false, true},  // the prefix is text
        {"x/a", response, true, false},        // other topics stay unread
    };
    for (const auto& row : rows) {
        EXPECT_EQ(client->IsTelemetryMessage(row.topic, row.payload), !row.closed && !row.line);
        for (const int link_type : {0, 1, 2}) {
            SCOPED_TRACE(row.topic + row.payload + std::to_string(link_type));
            client->setLinkType(link_type);
            log.clear();
            EXPECT_EQ(queued(row.topic, row.payload), row.closed || link_type == 1 ? 1u : 0u);
            const auto line = information("mqtt rece msg: " + row.payload + ", topic=" + row.topic);
            EXPECT_EQ(log.lines(), row.line ? std::vector{line} : std::vector<test::LogLine>());
        }
    }
    EXPECT_EQ(client->GetDroppedMessages(), 0u) << "what is thrown away is not counted";
    for (const std::string name :
         {"heartBeat", "pushTelemetry", "getCatapultCameraParam", "getSearchlightCameraParam",
          "preUploadedAudioCmd", "getMegaphoneCameraParam"})
        EXPECT_TRUE(client->IsTelemetryMessage("any topic", "{\"api\":\"x" + name + "\"}")) << name;
}

TEST_F(MqttInboundTest, FindsHandlersByExactKeyOrElseByTextualPrefix)
{
    hold();
    for (const char* const filter : {"a/b", "a/b", "a/#", "p/+/c", "#", "+/x", "/#", "both/+/#"})
        subscribe(no_work, filter);
    subscribe(MqttClient::MessageHandler(), "a/b");  // passed over
    const std::pair<const char*, std::size_t> rows[] = {
        {"a/b", 2},  // the exact key alone, with all its handlers
        {"a/c", 1}, {"ab", 1}, {"b", 0}, {"p/x", 1},      {"pbc", 1},
        {"q/x", 0}, {"/", 0},  {"", 0},  {"both/+/z", 1}, {"both/z", 0}};
    for (const auto& [topic, found] : rows) EXPECT_EQ(queued(topic), found) << topic;
}

TEST_F(MqttInboundTest, KeepsEachLimitToTheByte)
{
    constexpr std::size_t kLargest = 20971520, kMemory = 419430400, kEntries = 100000;
    hold();
    for (int i = 0; i < 3; ++i) subscribe(no_work, "t");
    EXPECT_EQ(queued("t", std::string(kLargest, 'x')), 3u);
    EXPECT_EQ(queued("t", std::string(kLargest + 1, 'x')), 0u);
    EXPECT_EQ(client->GetDroppedMessages(), 3u) << "once for each handler";
    MQTTAsync_message negative = empty_message;
    negative.payloadlen = -2;
    impl().Admit(no_work, "t", "", negative);
    EXPECT_TRUE(log.has(error("Message too large: -2 bytes, max allowed: 20971520u bytes")));

    const std::size_t cost = 1 + 160 + 4;
    impl().memory_usage = kMemory - 2 * cost;
    EXPECT_EQ(queued("t", "four"), 2u);
    EXPECT_EQ(client->GetDroppedMessages(), 5u);
    impl().memory_usage = kMemory - 3 * cost + 1;
    EXPECT_EQ(queued("t", "four"), 2u);

    for (std::size_t i = 0; i < kEntries - 1; ++i)
        impl().message_queue.emplace_back(empty_message, "", "", no_work);
    EXPECT_EQ(queued("t", "four"), kEntries);
    EXPECT_EQ(client->GetDroppedMessages(), 8u);
}

TEST_F(MqttInboundTest, HandsEachHandlerACopyOfItsOwnAndReturnsEveryCount)
{
    connect();
    test::Recorder<const void*> payloads;
    std::promise<void> gate;
    const auto held = [&, opened = gate.get_future().share()](auto* message, const std::string& topic) {
        EXPECT_EQ(topic + std::to_string(message->qos), "/krono/t2");
        EXPECT_EQ(std::string(static_cast<char*>(message->payload), 12), R"({"api":"go"})");
        payloads.add(message->payload);
        opened.wait();
        throw 5;
    };
    for (int i = 0; i < 3; ++i) subscribe(MqttClient::MessageHandler(held), "/krono/t");
    paho.deliver("/krono/t", R"({"api":"go"})", 2);
    EXPECT_TRUE(eventually([&] { return payloads.all().size() == 3; }));
    for (const void* const payload : payloads.all()) EXPECT_EQ(payloads.count(payload), 1u);
    EXPECT_EQ(*impl().in_flight_handlers, 3);
    EXPECT_EQ(client->GetQueueSize() + client->GetMemoryUsage(), 0u) << "entries in hand count no more";
    gate.set_value();
    subscribe(no_work, "/krono/u");
    paho.deliver("/krono/u", "{}");  // without an api it ends without a line
    paho.deliver("/krono/u", R"({"api":"go"})");
    EXPECT_TRUE(logged(information("End handle msg async, topic: /krono/u, api: go")));
    EXPECT_TRUE(eventually([&] { return *impl().in_flight_handlers == 0; }));
    EXPECT_EQ(log.countPrefix("End handle msg async"), 1u) << "what throws ends without a line";
}

TEST_F(MqttInboundTest, ReleasesWhatArrivesAfterTheClearingOnceEach)
{
    connect();
    subscribe(no_work, "t");
    ASSERT_TRUE(eventually([this] { return client.use_count() == 1; }));
    paho.onCall("disconnect", [this, &own = impl()] {  // the processor is gone and the queue has been cleared
        paho.deliver("t", "late");
        EXPECT_EQ(own.message_queue.size(), 1u);
    });
    client.reset();
}

TEST_F(MqttInboundTest, LeavesWhatIsQueuedWhenTheProcessorStops)
{
    connect();
    {
        const std::lock_guard<std::mutex> lock(impl().queue_mutex);  // the processor is kept from the queue
        impl().processor_started = false;
        for (int i = 0; i < 3; ++i) impl().message_queue.emplace_back(empty_message, "t", "", no_work);
    }
    impl().queue_cv.notify_all();
    impl().message_processor_thread.join();
    EXPECT_EQ(client->GetQueueSize(), 3u);
}

// ---- The settled endings ----

using MqttInboundDeathTest = MqttInboundTest;

TEST_F(MqttInboundDeathTest, TheThirtyThirdBusyHandlerEndsTheProcess)
{
    EXPECT_DEATH(
        {
            connect();
            for (int i = 0; i < 33; ++i)
                subscribe([](auto*, const auto&) { std::this_thread::sleep_for(std::chrono::minutes(1)); },
                          "t");
            paho.deliver("t", "x");
            std::this_thread::sleep_for(std::chrono::seconds(30));
        },
        "NoThreadAvailableException");
}

TEST_F(MqttInboundDeathTest, ClearingAQueueWithEntriesEndsTheProcess)
{
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "this sanitizer's allocator lets the second release of a block pass";
#endif
    for (const bool by_destruction : {false, true}) {
        EXPECT_DEATH(
            {
                hold();
                subscribe(no_work, "t");
                paho.deliver("t", "x");
                if (by_destruction) client.reset();
                client->EmergencyClear();
                std::_Exit(0);
            },
            "free\\(\\)|double free|double-free|AddressSanitizer");
    }
}

}  // namespace
}  // namespace kro
