// The road of an inbound message from Paho's callback to the handler, on a fake of Paho.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <set>
#include <stdexcept>
#include <thread>

#include "support/MqttFixture.h"

namespace kro
{
namespace
{
using namespace std::chrono_literals;
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
    auto noHandler()
    {
        return [](MQTTAsync_message*, const std::string&) {};
    }
    /// Delivers with nobody consuming. @return the entries that came of it, and leaves the queue empty.
    std::size_t queued(const std::string& topic, const std::string& payload = "x", std::string* api = nullptr)
    {
        paho.deliver(topic, payload);
        const std::size_t size = client->GetQueueSize();
        if (api != nullptr && size > 0) *api = impl().message_queue.front().api;
        Access::release(*client);
        return size;
    }
};

TEST_F(MqttInboundTest, SortsMessagesByTopicAndApi)
{
    hold();
    subscribe(noHandler(), "/krono/#");
    subscribe(noHandler(), "x/#");
    const std::string camera = R"({"api":"getCatapultCameraParam","type":"response"})";
    const std::string response = R"({"api":"go","type":"response"})";
    const std::string request = R"({"api":"go","type":"request"})";
    const struct
    {
        const char* what;
        std::string topic, payload;
        bool closed, open,
            line;  // delivered with link type 0, with 1; logged where it is not thrown away as telemetry
        std::string api;
    } rows[] = {
        {"heartbeat by topic", "x/heartBeat", request, false, true, false, ""},
        {"telemetry by topic", "/krono/pushTelemetry/1", request, false, true, false, ""},
        {"another case is another word", "x/heartbeat", request, true, true, false, ""},
        {"camera by api, its type unseen", "/krono/a", camera, false, true, false, "getCatapultCameraParam"},
        {"searchlight by api", "/krono/a", R"({"api":"getSearchlightCameraParam"})", false, true, false,
         "getSearchlightCameraParam"},
        {"audio by api", "/krono/a", R"({"api":"1preUploadedAudioCmd2"})", false, true, false,
         "1preUploadedAudioCmd2"},
        {"megaphone by api", "/krono/a", R"({"api":"getMegaphoneCameraParam"})", false, true, false,
         "getMegaphoneCameraParam"},
        {"heartbeat by api", "/krono/a", R"({"api":"heartBeat"})", false, true, false, "heartBeat"},
        {"response", "/krono/a", response, false, true, true, "go"},
        {"request", "/krono/a", request, true, true, true, "go"},
        {"no type", "/krono/a", "{}", true, true, true, ""},
        {"numbers convert", "/krono/a", R"({"api":5,"type":6})", true, true, true, "5"},
        {"what doesn't convert is empty", "/krono/a", R"({"api":null,"type":null})", true, true, true, ""},
        {"broken JSON", "/krono/a", "{broken", true, true, false, ""},
        {"no object", "/krono/a", "[1]", true, true, false, ""},
        {"empty", "/krono/a", "", true, true, false, ""},
        {"the prefix is text", "/kronoX/a", response, false, true, true, "go"},
        {"other topics stay unread", "x/a", camera, true, true, false, ""},
    };
    for (const auto& row : rows) {
        for (const int link_type : {0, 1, 2}) {
            SCOPED_TRACE(row.what + std::string(", link type ") + std::to_string(link_type));
            client->setLinkType(link_type);
            log.clear();
            std::string api;
            EXPECT_EQ(queued(row.topic, row.payload, &api),
                      (link_type == 1 ? row.open : row.closed) ? 1u : 0u);
            if (link_type == 1 ? row.open : row.closed) {
                EXPECT_EQ(api, row.api);
            }
            const auto line = information("mqtt rece msg: " + row.payload + ", topic=" + row.topic);
            EXPECT_EQ(log.lines(), row.line ? std::vector{line} : std::vector<test::LogLine>());
        }
    }
    EXPECT_EQ(client->GetDroppedMessages(), 0u) << "what is thrown away is not counted";
}

TEST_F(MqttInboundTest, TellsTheTelemetryClassOfAnyTopic)
{
    create();
    EXPECT_TRUE(client->IsTelemetryMessage("a/heartBeat/b", "no JSON"));
    EXPECT_TRUE(client->IsTelemetryMessage("any", R"({"api":"xgetMegaphoneCameraParam"})"));
    for (const char* const payload : {R"({"api":"other"})", R"({"api":null})", "{}", "[]", "{broken", ""})
        EXPECT_FALSE(client->IsTelemetryMessage("any", payload)) << payload;
}

TEST_F(MqttInboundTest, FindsHandlersByExactKeyOrElseByTextualPrefix)
{
    hold();
    for (const char* const filter : {"a/b", "a/#", "p/+/c", "#", "+/x", "/#", "both/+/#"})
        subscribe(noHandler(), filter);
    subscribe(noHandler(), "a/b");
    const struct
    {
        const char* topic;
        std::size_t found;
    } rows[] = {{"a/b", 2},  // the exact key alone, with both its handlers
                {"a/c", 1}, {"ab", 1},  {"a", 1}, {"b", 0},        {"p/b/d", 1},  {"p/x", 1},
                {"pbc", 1}, {"q/x", 0}, {"/", 0}, {"both/+/z", 1}, {"both/z", 0}, {"", 0}};
    for (const auto& row : rows) EXPECT_EQ(queued(row.topic), row.found) << row.topic;
    impl().subscribe_map["a/b"] = {MqttClient::MessageHandler(), noHandler()};
    EXPECT_EQ(queued("a/b"), 1u) << "an empty handler is passed over";
}

TEST_F(MqttInboundTest, KeepsEachLimitToTheByte)
{
    constexpr std::size_t kLargest = 20971520, kMemory = 419430400, kEntries = 100000;
    hold();
    for (int i = 0; i < 3; ++i) subscribe(noHandler(), "t");
    EXPECT_EQ(queued("t", std::string(kLargest, 'x')), 3u);
    log.clear();
    EXPECT_EQ(queued("t", std::string(kLargest + 1, 'x')), 0u);
    EXPECT_EQ(client->GetDroppedMessages(), 3u) << "once for each handler";
    EXPECT_EQ(log.count(error("Message too large: 20971521 bytes, max allowed: 20971520u bytes")), 3u);

    const std::size_t cost = 1 + 160 + 4;
    impl().memory_usage = kMemory - 2 * cost;  // room for two of the three
    paho.deliver("t", "four");
    EXPECT_EQ(client->GetMemoryUsage(), kMemory);
    EXPECT_EQ(client->GetQueueSize(), 2u);
    EXPECT_EQ(client->GetDroppedMessages(), 4u);
    EXPECT_EQ(log.count(error("Memory limit exceeded, dropping message")), 1u);
    Access::release(*client);
    impl().memory_usage = kMemory - 3 * cost + 1;  // one byte short of room for three
    EXPECT_EQ(queued("t", "four"), 2u);

    const MQTTAsync_message empty = MQTTAsync_message_initializer;
    for (std::size_t i = 0; i < kEntries - 1; ++i)
        impl().message_queue.emplace_back(empty, "", "", noHandler());
    log.clear();
    paho.deliver("t", "four");
    EXPECT_EQ(client->GetQueueSize(), kEntries);
    EXPECT_EQ(log.count(error("Message queue full, dropping message")), 2u);
    EXPECT_EQ(client->GetDroppedMessages(), 7u);
    EXPECT_EQ(client->GetMemoryUsage(), cost);
}

TEST_F(MqttInboundTest, FreesWhatPahoHandsOverOnOddPathsToo)
{
    hold();
    subscribe(noHandler(), "t");
    subscribe(noHandler(), "/krono/t");
    const auto message = [](int length) {
        auto* const made = static_cast<MQTTAsync_message*>(std::malloc(sizeof(MQTTAsync_message)));
        *made = MQTTAsync_message_initializer;
        made->payloadlen = length;
        return made;
    };
    const auto arrive = [&](const char* topic, MQTTAsync_message* received, bool with_context = true) {
        paho.unfreed += (topic != nullptr ? 1 : 0) + (received != nullptr ? 1 : 0);
        paho.fire([=](auto& handle) {
            handle.arrived(with_context ? handle.context : nullptr,
                           topic == nullptr ? nullptr : strdup(topic), 0, received);
        });
    };
    arrive("t", message(0), false);
    arrive(nullptr, nullptr, false);
    arrive("t", nullptr);
    arrive("/krono/t", nullptr);
    arrive(nullptr, message(0));
    EXPECT_EQ(client->GetQueueSize(), 0u);
    for (const char* const topic : {"t", "/krono/t"}) {
        log.clear();
        arrive(topic, message(-2));
        EXPECT_EQ(log.lines(),
                  std::vector{error("Message too large: -2 bytes, max allowed: 20971520u bytes")});
    }
    arrive("t", message(0));
    ASSERT_EQ(client->GetQueueSize(), 1u);
    EXPECT_NE(impl().message_queue.front().message.payload, nullptr) << "an array of length 0";
    EXPECT_EQ(client->GetDroppedMessages(), 2u);
}

TEST_F(MqttInboundTest, HandsEachHandlerACopyOfItsOwnAndReturnsEveryCount)
{
    connect();
    std::mutex mutex;
    std::set<const void*> payloads;
    std::promise<void> gate;
    const auto opened = gate.get_future().share();
    for (int i = 0; i < 3; ++i) {
        subscribe(
            [&, opened](MQTTAsync_message* message, const std::string& topic) {
                EXPECT_EQ(topic, "/krono/t");
                EXPECT_EQ(std::string(static_cast<char*>(message->payload), 12), R"({"api":"go"})");
                EXPECT_EQ(message->qos, 2);
                {
                    const std::lock_guard<std::mutex> lock(mutex);
                    payloads.insert(message->payload);
                }
                opened.wait();
                throw 5;
            },
            "/krono/t");
    }
    subscribe([](auto*, const auto&) {}, "/krono/u");
    paho.deliver("/krono/t", R"({"api":"go"})", 2);
    EXPECT_TRUE(eventually([&] {
        const std::lock_guard<std::mutex> lock(mutex);
        return payloads.size() == 3;
    }));
    EXPECT_EQ(*impl().in_flight_handlers, 3);
    EXPECT_EQ(client->GetQueueSize(), 0u);
    EXPECT_EQ(client->GetMemoryUsage(), 0u) << "entries in hand count no more";
    gate.set_value();
    EXPECT_TRUE(eventually([&] { return *impl().in_flight_handlers == 0; }));
    EXPECT_EQ(log.countPrefix("End handle msg async"), 0u) << "what throws ends without a line";
    paho.deliver("/krono/u", R"({"api":"go"})");
    EXPECT_TRUE(logged(information("End handle msg async, topic: /krono/u, api: go")));
    paho.deliver("/krono/u", "{}");  // without an api it ends without a line
    paho.deliver("/krono/u", R"({"api":"end"})");
    EXPECT_TRUE(logged(information("End handle msg async, topic: /krono/u, api: end")));
    EXPECT_TRUE(eventually([&] { return *impl().in_flight_handlers == 0; }));
    EXPECT_EQ(log.countPrefix("End handle msg async"), 2u);
}

TEST_F(MqttInboundTest, ClearsAnEmptyQueueWithoutAWord)
{
    hold();
    impl().memory_usage = 5;
    log.clear();
    client->EmergencyClear();
    EXPECT_EQ(client->GetMemoryUsage(), 0u);
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(MqttInboundTest, ReleasesWhatArrivesAfterTheClearingOnceEach)
{
    connect();
    subscribe(noHandler(), "t");
    // Deliver in the middle of Cleanup, when the processor is gone and the queue has been cleared.
    Access::Impl& own = impl();
    std::size_t queued_late = 0;
    paho.onCall("disconnect", [&] {
        paho.deliver("t", "late");
        queued_late = own.message_queue.size();
    });
    EXPECT_TRUE(eventually([this] { return client.use_count() == 1; }));
    client.reset();
    EXPECT_EQ(queued_late, 1u);
    EXPECT_EQ(log.countPrefix("Emergency clear"), 0u);
}

TEST_F(MqttInboundTest, LeavesWhatIsQueuedWhenTheProcessorStops)
{
    connect();
    std::promise<void> gate;
    std::promise<void> entered;
    std::atomic<int> handled{0};
    subscribe(
        [&, opened = gate.get_future().share()](auto*, const auto&) {
            if (handled++ == 0) entered.set_value();
            opened.wait();
        },
        "t");
    paho.deliver("t", "first");
    entered.get_future().wait();
    {
        const std::lock_guard<std::mutex> lock(impl().queue_mutex);  // the processor is kept from the queue
        impl().processor_started = false;
        const MQTTAsync_message empty = MQTTAsync_message_initializer;
        for (int i = 0; i < 3; ++i) impl().message_queue.emplace_back(empty, "t", "", noHandler());
    }
    impl().queue_cv.notify_all();
    gate.set_value();
    impl().message_processor_thread.join();  // through its drain
    EXPECT_EQ(handled, 1);
    EXPECT_EQ(*impl().in_flight_handlers, 0);
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
                subscribe([](auto*, const auto&) { std::this_thread::sleep_for(60s); }, "t");
            paho.deliver("t", "x");
            std::this_thread::sleep_for(30s);
        },
        "NoThreadAvailableException");
}

TEST_F(MqttInboundDeathTest, ClearingAQueueWithEntriesEndsTheProcess)
{
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "this sanitizer's allocator lets the second release of a block pass";
#endif
    for (const bool by_destruction : {false, true}) {
        for (const std::size_t bytes : {0u, 100u, 100000u}) {
            SCOPED_TRACE(bytes);
            EXPECT_DEATH(
                {
                    hold();
                    subscribe(noHandler(), "t");
                    paho.deliver("t", std::string(bytes, 'x'));
                    if (by_destruction) client.reset();
                    client->EmergencyClear();
                    std::_Exit(0);
                },
                "free\\(\\)|double free|double-free|AddressSanitizer");
        }
    }
}

}  // namespace
}  // namespace kro
