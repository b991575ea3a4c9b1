// PublishMessage beside MQTTAsync_sendMessage itself, which is its limit: both towards the same broker, which is
// a bare socket in a process of its own, in turns of a few hundred messages, with a bounded number in flight.
//
//     PublishBench [--guarded] [TURNS [MESSAGES]]     20 turns of 500 messages by default
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <future>
#include <string>
#include <vector>

#include <MQTTAsync.h>
#include <Poco/Logger.h>

#include "Figures.h"
#include "MqttClient++.h"
#include "MqttWire.h"
#include "Safeguards.h"
#include "support/Eventually.h"

namespace
{
using namespace kro::bench;

constexpr int kMostInFlight = 64;  // Paho looks for a message among those in flight one after the other
const std::string kTopic = "bench/publish";

/// A broker for one client, that takes everything.
class Sink
{
public:
    Sink()
    {
        MqttWire wire;
        address = wire.listen();
        process = fork();
        if (process != 0) return;
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        wire.acceptOne();
        while (wire.serve(true)) {
        }
        std::_Exit(0);
    }
    ~Sink()
    {
        kill(process, SIGKILL);
        waitpid(process, nullptr, 0);
    }
    Sink(const Sink&) = delete;
    Sink& operator=(const Sink&) = delete;
    const std::string& uri() const { return address; }

private:
    std::string address;
    pid_t process = -1;
};

std::atomic<int> s_delivered{0};

MQTTAsync connectPaho(const std::string& uri)
{
    MQTTAsync client = nullptr;
    MQTTAsync_create(&client, uri.c_str(), "plain", MQTTCLIENT_PERSISTENCE_NONE, nullptr);
    std::promise<void> connected;
    MQTTAsync_connectOptions options = MQTTAsync_connectOptions_initializer;
    options.context = &connected;
    options.onSuccess = [](void* to, MQTTAsync_successData*) {
        static_cast<std::promise<void>*>(to)->set_value();
    };
    options.onFailure = [](void*, MQTTAsync_failureData*) { std::abort(); };
    if (MQTTAsync_connect(client, &options) != MQTTASYNC_SUCCESS) std::abort();
    connected.get_future().wait();
    return client;
}

bool sendPaho(MQTTAsync client, const std::string& payload, int qos)
{
    MQTTAsync_message message = MQTTAsync_message_initializer;
    message.payload = const_cast<char*>(payload.data());
    message.payloadlen = static_cast<int>(payload.size());
    message.qos = qos;
    MQTTAsync_responseOptions options = MQTTAsync_responseOptions_initializer;
    options.onSuccess = [](void*, MQTTAsync_successData*) { ++s_delivered; };
    return MQTTAsync_sendMessage(client, kTopic.c_str(), &message, &options) == MQTTASYNC_SUCCESS;
}

void nap()
{
    const timespec pause{0, 15000};
    nanosleep(&pause, nullptr);
}

struct Times
{
    std::vector<double> call_us, whole_us;
};

/// One turn: the time inside the calls, and the time until the last message is delivered, for each message.
void measure(int messages, const std::function<bool()>& send, Times& times)
{
    s_delivered = 0;
    double inside = 0;
    const auto begin = Clock::now();
    for (int i = 0; i < messages; ++i) {
        while (i - s_delivered >= kMostInFlight) nap();
        const auto call = Clock::now();
        if (!send()) std::abort();
        inside += secondsSince(call);
    }
    while (s_delivered < messages) nap();
    times.whole_us.push_back(secondsSince(begin) / messages * 1e6);
    times.call_us.push_back(inside / messages * 1e6);
}

double median(std::vector<double> values)
{
    std::nth_element(values.begin(), values.begin() + static_cast<long>(values.size() / 2), values.end());
    return values[values.size() / 2];
}

void report(const std::string& where, const std::string& candidate, const Times& times)
{
    tell("publishing", "rate", where, candidate, 1e6 / median(times.whole_us), "messages/s");
    tell("publishing", "time in the call", where, candidate, median(times.call_us), "us");
}
}  // namespace

int main(int argc, char** argv)
{
    std::vector<std::string> arguments(argv + 1, argv + argc);
    const bool guarded = !arguments.empty() && arguments[0] == "--guarded";
    if (guarded) arguments.erase(arguments.begin());
    const int turns = arguments.empty() ? 20 : std::atoi(arguments[0].c_str());
    const int messages = arguments.size() < 2 ? 500 : std::atoi(arguments[1].c_str());
    const std::string name = guarded ? "guarded" : "settled";
    prctl(PR_SET_TIMERSLACK, 1);  // of the naps
    const Sink sinks[2];          // before there are threads

    kro::setSafeguards(guarded ? kro::kAllSafeguards : 0);
    Poco::Logger::root().setLevel(Poco::Message::PRIO_ERROR);
    const MQTTAsync paho = connectPaho(sinks[0].uri());
    const auto client = kro::MqttClient::createInstance(sinks[1].uri(), "measured", "user", "secret");
    client->SetDeliveryCompleteCallback([](int) { ++s_delivered; });
    client->Connect({}, {});
    if (!kro::test::eventually([&] { return client->IsConnected(); })) return 1;

    const auto compare = [&](const std::string& where, int count, const std::function<bool()>& plain,
                             const std::function<bool()>& ours) {
        Times paho_times, our_times, warm_up;
        measure(count, plain, warm_up);
        measure(count, ours, warm_up);
        for (int turn = 0; turn < turns; ++turn) {  // who comes first changes
            if (turn % 2 == 0) measure(count, plain, paho_times);
            measure(count, ours, our_times);
            if (turn % 2 != 0) measure(count, plain, paho_times);
        }
        report(where + (guarded ? ", guarded" : ""), "Paho", paho_times);
        report(where + (guarded ? ", guarded" : ""), name, our_times);
    };
    for (const int qos : {0, 1}) {
        const std::string level = "QoS " + std::to_string(qos) + ", ";
        for (const std::size_t bytes : {64, 1 << 10, 64 << 10}) {
            const std::string payload(bytes, 'x');
            compare(
                level + (bytes < 1024 ? std::to_string(bytes) + " B" : std::to_string(bytes / 1024) + " KiB"),
                bytes > 1024 ? std::max(messages / 10, 1) : messages,
                [&] { return sendPaho(paho, payload, qos); },
                [&] { return client->PublishMessage(payload, kTopic, qos, 0, 0); });
        }
        // As a host does that makes each payload and then has no more use for it.
        const auto make = [] { return std::string(64 << 10, 'x'); };
        compare(
            level + "64 KiB, made and moved in", std::max(messages / 10, 1),
            [&] { return sendPaho(paho, make(), qos); },
            [&] { return client->PublishMessage(make(), kTopic, qos, 0, 0); });
    }
    std::fflush(stdout);
    std::_Exit(0);  // without the client's teardown; the sinks end with this process
}
