// How long a client takes to be back after its broker's restart, and to end: behind a real broker.
//
//     LifeBench [--guarded] [--ends]     ends: leaves out the restart
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>

#include <Poco/Logger.h>

#include "Figures.h"
#include "MqttClient++.h"
#include "MqttWire.h"
#include "Safeguards.h"
#include "support/Broker.h"
#include "support/Eventually.h"

namespace
{
using namespace kro::bench;
using kro::test::Broker;
using kro::test::eventually;

std::string s_candidate = "settled";
std::atomic<int> s_handled{0};

std::shared_ptr<kro::MqttClient> makeClient(const Broker& broker, const std::string& id)
{
    auto client = kro::MqttClient::createInstance(broker.uri(), id, "user", "secret");
    client->Connect({}, {});
    if (!eventually([&] { return client->IsConnected(); })) std::abort();
    return client;
}

/// Sends a message every 5 ms until one is handled. @return whether one was.
bool sendUntilHandled(const Broker& broker)
{
    MqttWire wire;
    wire.connect(broker.uri(), "sender");
    const std::string packet = MqttWire::publishPacket("bench/life", "x", 0);
    s_handled = 0;
    return eventually([&, turn = 0]() mutable {
        if (turn++ % 5 == 0) wire.send(packet.data(), packet.size());
        return s_handled > 0;
    });
}

/// A broker that comes back at once: the client notices at once, so the back-off, 1 s to 1.2 s, is part of it.
void recovery(Broker& broker)
{
    const auto client = makeClient(broker, "restarted");
    client->Subscribe([](MQTTAsync_message*, const std::string&) { ++s_handled; }, "bench/life", 1);
    if (!sendUntilHandled(broker)) std::abort();
    broker.kill();
    broker.start();
    const auto begin = Clock::now();
    if (!sendUntilHandled(broker)) std::abort();
    tell("life", "recovery", "broker restarted, back-off of 1 to 1.2 s included", s_candidate,
         secondsSince(begin) * 1e3, "ms");
    client->Unsubscribe("bench/life");
    client->Unsubscribe("bench/life");
    eventually([&] { return client->GetQueueSize() == 0 && client.use_count() == 1; });
}

void ends(const Broker& broker)
{
    auto client = makeClient(broker, "ending");
    eventually([&] { return client.use_count() == 1; });
    auto begin = Clock::now();
    client.reset();
    tell("life", "end of a client", "connected", s_candidate, secondsSince(begin) * 1e3, "ms");

    client = makeClient(broker, "ending");
    client->Disconnect();
    eventually([&] { return client.use_count() == 1; });
    std::this_thread::sleep_for(std::chrono::milliseconds(200));  // Paho has let go of the connection
    begin = Clock::now();
    client.reset();
    tell("life", "end of a client", "not connected", s_candidate, secondsSince(begin) * 1e3, "ms");
}
}  // namespace

int main(int argc, char** argv)
{
    bool restart = true;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--guarded") == 0) {
            kro::setSafeguards(kro::kAllSafeguards);
            s_candidate = "guarded";
        } else if (std::strcmp(argv[i], "--ends") == 0) {
            restart = false;
        } else {
            std::fprintf(stderr, "usage: LifeBench [--guarded] [--ends]\n");
            return 2;
        }
    }
    Poco::Logger::root().setLevel(Poco::Message::PRIO_FATAL);
    Broker broker;
    if (restart) recovery(broker);
    ends(broker);
}
