// In a program of its own: paho.mqtt.cpp brings another build of the Paho library than ours, with the same names.
#include <memory>
#include <thread>

#include <mqtt/async_client.h>

#include "Subscribers.h"

namespace kro::bench
{
namespace
{
/// As its own examples do: its callback fills a queue, and a thread takes one message after the other out of it.
void subscribeConsumer(const std::string& uri, const std::string& topic, int qos, const Work& work)
{
    auto* const client = new mqtt::async_client(uri, "measured");
    client->start_consuming();
    auto options = mqtt::connect_options_builder().user_name("user").password("secret").finalize();
    client->connect(options)->wait();
    std::thread([client, work] {
        while (const mqtt::const_message_ptr message = client->consume_message())
            work(message->get_payload().data(), message->get_payload().size());
    }).detach();
    client->subscribe(topic, qos);
}
}  // namespace

const std::map<std::string, Subscriber>& subscribers()
{
    static const std::map<std::string, Subscriber> s_all = {{"paho.mqtt.cpp", subscribeConsumer}};
    return s_all;
}
}  // namespace kro::bench
