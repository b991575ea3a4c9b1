// Messages a second from a real broker on the loopback to a handler that counts, and the processor time of
// each, beside Paho's own callback that does the same: the limit. The sender is a process of its own and
// keeps at most kWindow messages unhandled, so that the pool's settled ending is not met.
//
// InboundBench [MESSAGES]
#include <sched.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <new>
#include <string>

#include <MQTTAsync.h>

#include "MqttClient++.h"
#include "support/Broker.h"
#include "support/Eventually.h"

namespace
{
using kro::test::eventually;

constexpr int kWindow = 16;
constexpr std::size_t kPayloadBytes = 64;

struct Shared  // between the sender and the measured process
{
    std::atomic<int> handled{0};
    std::atomic<bool> go{false};
};

double processorSeconds()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval& t) { return double(t.tv_sec) + double(t.tv_usec) / 1e6; };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

/// A plain Paho client, connected. Ends with the process.
MQTTAsync connected(const std::string& uri, const std::string& id, MQTTAsync_messageArrived* arrived,
                    void* context)
{
    MQTTAsync client = nullptr;
    MQTTAsync_create(&client, uri.c_str(), id.c_str(), MQTTCLIENT_PERSISTENCE_NONE, nullptr);
    MQTTAsync_setCallbacks(client, context, nullptr, arrived, nullptr);
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
    return client;
}

int dropMessage(void* /*context*/, char* topic, int /*length*/, MQTTAsync_message* message)
{
    MQTTAsync_freeMessage(&message);
    MQTTAsync_free(topic);
    return 1;
}

int countMessage(void* context, char* topic, int length, MQTTAsync_message* message)
{
    ++static_cast<Shared*>(context)->handled;
    return dropMessage(nullptr, topic, length, message);
}

void send(const std::string& uri, int qos, int messages, const Shared& shared)
{
    MQTTAsync client = connected(uri, "sender", dropMessage, nullptr);
    std::string payload(kPayloadBytes, 'x');
    while (!shared.go) usleep(1000);
    for (int i = 0; i < messages; ++i) {
        while (i - shared.handled >= kWindow) sched_yield();
        MQTTAsync_send(client, "bench", static_cast<int>(payload.size()), payload.data(), qos, 0, nullptr);
    }
    while (shared.handled < messages) usleep(1000);
}

/// Runs in a process of its own: subscribes one way, and tells rate and processor time on standard output.
int measure(const std::string& uri, const char* candidate, int qos, int messages, Shared& shared)
{
    std::shared_ptr<kro::MqttClient> client;
    if (candidate == std::string("library")) {
        client = kro::MqttClient::createInstance(uri, "measured", "user", "secret");
        client->Connect({}, {});
        if (!eventually([&] { return client->IsConnected(); })) return 1;
        client->Subscribe([&](MQTTAsync_message*, const std::string&) { ++shared.handled; }, "bench", qos);
    } else {
        MQTTAsync plain = connected(uri, "measured", countMessage, &shared);
        MQTTAsync_subscribe(plain, "bench", qos, nullptr);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(500));  // the broker has the subscription
    const double processor = processorSeconds();
    const auto begin = std::chrono::steady_clock::now();
    shared.go = true;
    if (!eventually([&] { return shared.handled >= messages; }, std::chrono::minutes(2))) return 1;
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
    std::printf("%-8s QoS %d: %8.0f messages/s, %6.1f us of processor time each\n", candidate, qos,
                messages / took.count(), (processorSeconds() - processor) * 1e6 / messages);
    std::fflush(stdout);
    std::_Exit(0);  // without teardown: this process is done
}
}  // namespace

int main(int argc, char** argv)
{
    const int messages = argc > 1 ? std::atoi(argv[1]) : 20000;
    const kro::test::Broker broker;
    for (const int qos : {0, 1}) {
        for (const char* const candidate : {"Paho", "library"}) {
            void* const memory =
                mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
            auto* const shared = new (memory) Shared;
            const pid_t sender = fork();
            if (sender == 0) {
                send(broker.uri(), qos, messages, *shared);
                std::_Exit(0);
            }
            const pid_t measured = fork();
            if (measured == 0) std::_Exit(measure(broker.uri(), candidate, qos, messages, *shared));
            int status = 0;
            waitpid(measured, &status, 0);
            kill(sender, SIGKILL);
            waitpid(sender, nullptr, 0);
            munmap(memory, sizeof(Shared));
            if (status != 0) return 1;
        }
    }
}
