#ifndef KRO_TESTS_MQTT_FIXTURE_H
#define KRO_TESTS_MQTT_FIXTURE_H

#include <gtest/gtest.h>

#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "MqttClient++.h"
#include "support/Eventually.h"
#include "support/FakePaho.h"
#include "support/LogCapture.h"
#include "support/MqttClientAccess.h"

namespace kro
{
namespace test
{
/// A client on the fake of Paho.
class MqttFixture : public testing::Test
{
protected:
    using Access = MqttClientTestAccess;

    MqttFixture()
    {
        paho.reset();
        log.clear();
    }
    ~MqttFixture() override
    {
        log.setHook({});
        for (const char* const function : {"create", "connect", "disconnect", "subscribe", "send"})
            paho.onCall(function, {});
        if (client) {
            Access::release(*client);
            // A task that still holds the client would end it on a pool thread, beside the end of the
            // process.
            EXPECT_TRUE(eventually([this] { return client.use_count() == 1; }));
            client.reset();
        }
        EXPECT_EQ(paho.unfreed, 0) << "each message and topic is freed once";
    }

    void create() { client = MqttClient::createInstance("tcp://broker:1883", "station", "user", "secret"); }

    /// Creates the client and connects it; `results` gets what connect_callback is told.
    void connect()
    {
        create();
        client->Connect([this](int code) { return results.add(code); },
                        [this](const std::string& cause) { return losses.add(cause); });
        ASSERT_TRUE(eventually([&] { return log.countPrefix("Re-subscribing after reconnection") >= 1; }))
            << testing::PrintToString(log.lines()) << testing::PrintToString(paho.calls.all());
        // The attempt has let go of the client: a reset() is its end.
        ASSERT_TRUE(eventually([this] { return client.use_count() == 1; }));
    }

    Access::Impl& impl() { return Access::impl(*client); }
    bool logged(const LogLine& line, std::size_t times = 1)
    {
        return eventually([&] { return log.count(line) >= times; });
    }
    /// Waits until the handler of `filter` is in the table, the broker has been told, and the last line is
    /// logged.
    void subscribe(MqttClient::MessageHandler handler, const std::string& filter, int qos = 0)
    {
        const auto told = [&] {
            return log.countPrefix("Success to subscribe topic " + filter + ",") +
                   log.countPrefix("Failed to subscribe topic " + filter + ",");
        };
        const auto before = told();
        client->Subscribe(std::move(handler), filter, qos);
        ASSERT_TRUE(eventually([&] { return told() > before; }));
    }

    FakePaho& paho = FakePaho::instance();
    LogCapture& log = LogCapture::instance();
    Recorder<int> results;
    Recorder<std::string> losses;
    std::shared_ptr<MqttClient> client;
};
}  // namespace test
}  // namespace kro

#endif
