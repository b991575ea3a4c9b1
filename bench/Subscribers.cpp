#include "Subscribers.h"

#include <cstdlib>
#include <future>
#include <memory>

#include <MQTTAsync.h>
#ifdef KRO_BENCH_MOSQUITTO
#include <mosquitto.h>
#endif

#include "MqttClient++.h"
#include "Safeguards.h"
#include "support/Eventually.h"

namespace kro::bench
{
namespace
{
/// The limit: Paho as it is, the work in its callback.
void subscribePaho(const std::string& uri, const std::string& topic, int qos, const Work& work)
{
    MQTTAsync client = nullptr;
    MQTTAsync_create(&client, uri.c_str(), "measured", MQTTCLIENT_PERSISTENCE_NONE, nullptr);
    const auto arrived = [](void* to, char* name, int, MQTTAsync_message* message) {
        (*static_cast<const Work*>(to))(message->payload, static_cast<std::size_t>(message->payloadlen));
        MQTTAsync_freeMessage(&message);
        MQTTAsync_free(name);
        return 1;
    };
    MQTTAsync_setCallbacks(client, new Work(work), nullptr, arrived, nullptr);
    std::promise<bool> result;
    MQTTAsync_connectOptions options = MQTTAsync_connectOptions_initializer;
    options.username = "user";
    options.password = "secret";
    options.context = &result;
    options.onSuccess = [](void* to, MQTTAsync_successData*) {
        static_cast<std::promise<bool>*>(to)->set_value(true);
    };
    options.onFailure = [](void* to, MQTTAsync_failureData*) {
        static_cast<std::promise<bool>*>(to)->set_value(false);
    };
    if (MQTTAsync_connect(client, &options) != MQTTASYNC_SUCCESS || !result.get_future().get()) std::abort();
    MQTTAsync_subscribe(client, topic.c_str(), qos, nullptr);
}

void subscribeLibrary(const std::string& uri, const std::string& topic, int qos, const Work& work)
{
    const auto client = MqttClient::createInstance(uri, "measured", "user", "secret");
    client->Connect({}, {});
    if (!test::eventually([&] { return client->IsConnected(); })) std::abort();
    client->Subscribe(
        [work](MQTTAsync_message* message, const std::string&) {
            work(message->payload, static_cast<std::size_t>(message->payloadlen));
        },
        topic, qos);
    static_cast<void>(new std::shared_ptr<MqttClient>(client));  // to the end of the process
}

void subscribeGuarded(const std::string& uri, const std::string& topic, int qos, const Work& work)
{
    setSafeguards(kAllSafeguards);
    subscribeLibrary(uri, topic, qos, work);
}

#ifdef KRO_BENCH_MOSQUITTO
void subscribeMosquitto(const std::string& uri, const std::string& topic, int qos, const Work& work)
{
    mosquitto_lib_init();
    mosquitto* const client = mosquitto_new("measured", true, new Work(work));
    mosquitto_username_pw_set(client, "user", "secret");
    mosquitto_message_callback_set(client, [](mosquitto*, void* to, const mosquitto_message* message) {
        (*static_cast<const Work*>(to))(message->payload, static_cast<std::size_t>(message->payloadlen));
    });
    const std::size_t colon = uri.rfind(':');
    if (mosquitto_connect(client, "127.0.0.1", std::atoi(uri.c_str() + colon + 1), 90) != 0) std::abort();
    mosquitto_subscribe(client, nullptr, topic.c_str(), qos);
    mosquitto_loop_start(client);
}
#endif
}  // namespace

const std::map<std::string, Subscriber>& subscribers()
{
    static const std::map<std::string, Subscriber> s_all = {
        {"Paho", subscribePaho},
        {"settled", subscribeLibrary},
        {"guarded", subscribeGuarded},
#ifdef KRO_BENCH_MOSQUITTO
        {"libmosquitto", subscribeMosquitto},
#endif
    };
    return s_all;
}
}  // namespace kro::bench
