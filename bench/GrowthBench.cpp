// How costs grow inside the library, each as a curve: of an inbound message with subscriptions, handlers, clients,
// payload and queue; of a pass over the periodic tasks with their number; and the memory of clients and of
// waiting messages. Paho is a fake that costs next to nothing, so these are the library's own costs.
//
//     GrowthBench [--guarded] [--budget SECONDS] [--instant]
//         budget: time for one point; instant: only short curves, to show that it runs
//
// Every point is taken in a process of its own: what one leaves behind is not the next one's.
#include <malloc.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

#include <Poco/Logger.h>

#include "Figures.h"
#include "MqttClient++.h"
#include "PeriodicTaskManager.h"
#include "Safeguards.h"
#include "support/Eventually.h"
#include "support/FakePaho.h"
#include "support/MqttClientAccess.h"

namespace kro
{
struct PeriodicTaskManagerTestAccess
{
    /// A manager that never sleeps, and is never destroyed.
    static PeriodicTaskManager& make()
    {
        auto* const manager = new PeriodicTaskManager;
        manager->endThreads_l();
        return *manager;
    }
    static void pass(PeriodicTaskManager& manager) { manager.monitorPeriodTasks(); }
};
}  // namespace kro

namespace
{
using namespace kro::bench;
using kro::MqttClientTestAccess;
using kro::test::eventually;
using kro::test::FakePaho;

std::string s_candidate = "settled";
double s_budget = 0.4;  // seconds for one point

struct Station  // a client, and where the fake takes its messages
{
    kro::MqttClient* client =
        nullptr;  // to the end of the process: settled, one with a full queue must not end
    FakePaho::Handle* handle = nullptr;
};

Station connected(int number = 0)
{
    FakePaho& paho = FakePaho::instance();
    Station station;
    const auto* const owner = new std::shared_ptr<kro::MqttClient>(kro::MqttClient::createInstance(
        "tcp://broker:1883", "station " + std::to_string(number), "user", "secret"));
    station.client = owner->get();
    station.client->Connect({}, {});
    if (!eventually([&] { return station.client->IsConnected(); })) std::abort();
    const std::lock_guard<std::recursive_mutex> lock(paho.paho_mutex);
    station.handle = &paho.handles.at(paho.newest);
    return station;
}

/// Has a message arrive, as Paho would. @return what the library's callback took, in seconds.
double arrive(const Station& station, const std::string& topic, const std::string& payload)
{
    auto* const message = static_cast<MQTTAsync_message*>(std::malloc(sizeof(MQTTAsync_message)));
    *message = MQTTAsync_message_initializer;
    message->payload = std::malloc(payload.size());
    std::memcpy(message->payload, payload.data(), payload.size());
    message->payloadlen = static_cast<int>(payload.size());
    char* const name = strdup(topic.c_str());
    const auto begin = Clock::now();
    station.handle->arrived(station.handle->context, name, 0, message);
    return secondsSince(begin);
}

/// The median of the means of up to 32 stretches: a mean alone tells more of the machine's other work.
double steadyMean(const std::vector<double>& values)
{
    const std::size_t stretch = std::max<std::size_t>(values.size() / 32, 1);
    std::vector<double> means;
    for (std::size_t i = 0; i + stretch <= values.size(); i += stretch) {
        const auto from = values.begin() + static_cast<std::ptrdiff_t>(i);
        means.push_back(std::accumulate(from, from + static_cast<std::ptrdiff_t>(stretch), 0.0) /
                        static_cast<double>(stretch));
    }
    std::sort(means.begin(), means.end());
    return means[means.size() / 2];
}

/// Time of a message on Paho's thread, in microseconds, with nobody taking them out of the queue.
double admission(const Station& station, const std::function<std::string(std::size_t)>& topic,
                 const std::string& payload)
{
    MqttClientTestAccess::holdProcessor(*station.client);
    std::vector<double> seconds;
    for (const auto begin = Clock::now(); seconds.size() < 20 || secondsSince(begin) < s_budget;) {
        seconds.push_back(arrive(station, topic(seconds.size()), payload));
        if (station.client->GetMemoryUsage() > (100u << 20) || seconds.size() % 1000 == 0)
            MqttClientTestAccess::release(*station.client);
    }
    if (station.client->GetDroppedMessages() > 0) std::abort();
    return steadyMean(seconds) * 1e6;
}

void subscriptions(int count, bool wildcard)
{
    const Station station = connected();
    for (int i = 0; i < count; ++i)
        MqttClientTestAccess::subscribe(
            *station.client, [](MQTTAsync_message*, const std::string&) {},
            "bench/" + std::to_string(i) + (wildcard ? "/#" : ""), 0);
    const auto topic = [=](std::size_t i) {
        const std::string key = "bench/" + std::to_string(i * 7919 % static_cast<std::size_t>(count));
        return wildcard ? key + "/x" : key;
    };
    tell("inbound growth", "admission with subscriptions", wildcard ? "wildcard filters" : "exact filters",
         s_candidate, admission(station, topic, std::string(64, 'x')), "us a message", count);
}

void handlers(int count)
{
    const Station station = connected();
    for (int i = 0; i < count; ++i)
        MqttClientTestAccess::subscribe(
            *station.client, [](MQTTAsync_message*, const std::string&) {}, "bench", 0);
    tell("inbound growth", "admission with handlers of one topic", "64 B", s_candidate,
         admission(
             station, [](std::size_t) { return "bench"; }, std::string(64, 'x')) /
             count,
         "us a handler", count);
}

void payload(int bytes)
{
    const Station station = connected();
    MqttClientTestAccess::subscribe(
        *station.client, [](MQTTAsync_message*, const std::string&) {}, "bench", 0);
    const std::string content(static_cast<std::size_t>(bytes), 'x');
    tell("inbound growth", "admission with payload", "any topic", s_candidate,
         admission(
             station, [](std::size_t) { return "bench"; }, content),
         "us a message", bytes);
    // The limit: one copy into memory of its own, and Paho's freed.
    std::vector<double> seconds;
    std::vector<std::unique_ptr<char[]>> kept;
    for (const auto begin = Clock::now(); seconds.size() < 20 || secondsSince(begin) < s_budget;) {
        char* const given = strdup(content.c_str());
        const auto copy = Clock::now();
        kept.emplace_back(new char[content.size()]);
        std::memcpy(kept.back().get(), given, content.size());
        std::free(given);
        seconds.push_back(secondsSince(copy));
        if (kept.size() * content.size() > (100u << 20) || seconds.size() % 1000 == 0) kept.clear();
    }
    tell("inbound growth", "admission with payload", "any topic", "one copy", steadyMean(seconds) * 1e6,
         "us a message", bytes);
}

void jsonPayload(int bytes)
{
    const Station station = connected();
    MqttClientTestAccess::subscribe(
        *station.client, [](MQTTAsync_message*, const std::string&) {}, "/krono/x", 0);
    std::string content = R"({"api":"state","type":"request")";
    for (int i = 0; content.size() < static_cast<std::size_t>(bytes); ++i)
        content += ",\"key" + std::to_string(i) + "\":" + std::to_string(i);
    tell("inbound growth", "admission with JSON payload", "topics below /krono", s_candidate,
         admission(
             station, [](std::size_t) { return "/krono/x"; }, content + "}"),
         "us a message", bytes);
}

void clients(int count)
{
    constexpr std::size_t kWindow = 4;  // far from the 32 threads at which the settled process ends
    static std::atomic<std::size_t> s_handled{0};
    const double resident_before = residentBytes();
    std::vector<Station> stations;
    for (int i = 0; i < count; ++i) {
        stations.push_back(connected(i));
        MqttClientTestAccess::subscribe(
            *stations.back().client, [](MQTTAsync_message*, const std::string&) { ++s_handled; }, "bench", 0);
    }
    tell("memory", "of a client", "Paho left out", s_candidate, (residentBytes() - resident_before) / count,
         "bytes", count);
    const std::string content(64, 'x');
    const std::size_t most = s_budget < 0.01 ? 200 : 10000;
    const auto begin = Clock::now();
    for (std::size_t sent = 0; sent < most; ++sent) {
        while (sent - s_handled >= kWindow) std::this_thread::yield();
        arrive(stations[sent % stations.size()], "bench", content);
    }
    while (s_handled < most) std::this_thread::yield();
    tell("inbound growth", "to the handler, with clients", "64 B, window 4 in all", s_candidate,
         secondsSince(begin) / static_cast<double>(most) * 1e6, "us a message", count);
}

void waiting(int most)
{
    const Station station = connected();
    MqttClientTestAccess::subscribe(
        *station.client, [](MQTTAsync_message*, const std::string&) {}, "bench", 0);
    MqttClientTestAccess::holdProcessor(*station.client);
    const std::string content(64, 'x');
    malloc_trim(0);
    const double before = residentBytes();
    constexpr int kSteps = 10;
    for (int step = 1; step <= kSteps; ++step) {
        std::vector<double> seconds;
        for (int i = 0; i < most / kSteps; ++i) seconds.push_back(arrive(station, "bench", content));
        tell("inbound growth", "admission with entries waiting", "64 B", s_candidate,
             steadyMean(seconds) * 1e6, "us a message", static_cast<double>(most) / kSteps * step);
    }
    const std::string where = std::to_string(most) + " messages of 64 B";
    const double charged = static_cast<double>(station.client->GetMemoryUsage());
    const double held = residentBytes() - before;
    tell("memory", "waiting messages, resident", where, s_candidate, held / most, "bytes a message");
    tell("memory", "waiting messages, charged", where, s_candidate, charged / most, "bytes a message");
    MqttClientTestAccess::release(*station.client);
    tell("memory", "kept by the allocator when they are gone", where, s_candidate, residentBytes() - before,
         "bytes");
    malloc_trim(0);
    tell("memory", "and after malloc_trim", where, s_candidate, residentBytes() - before, "bytes");
}

void periodicTasks(int count)
{
    kro::PeriodicTaskManager& manager = kro::PeriodicTaskManagerTestAccess::make();
    for (int i = 0; i < count; ++i) {
        std::string name = "task";
        manager.registerTask(
            name, std::chrono::hours(1) + std::chrono::milliseconds(i), [] {}, std::chrono::milliseconds(0));
    }
    std::size_t passes = 0;
    const auto begin = Clock::now();
    for (; passes < 5 || secondsSince(begin) < s_budget; ++passes)
        kro::PeriodicTaskManagerTestAccess::pass(manager);
    tell("periodic tasks", "a pass with none due", "registered tasks", s_candidate,
         secondsSince(begin) / static_cast<double>(passes) * 1e6, "us a pass", count);
}

/// Runs one point in a process of its own. @return whether it came to its end.
bool apart(const std::function<void()>& point)
{
    std::fflush(stdout);
    const pid_t process = fork();
    if (process == 0) {
        point();
        std::fflush(stdout);
        std::_Exit(0);
    }
    int status = 0;
    waitpid(process, &status, 0);
    return status == 0;
}

bool curve(void (*point)(int), const std::vector<int>& abscissas)
{
    bool good = true;
    for (const int x : abscissas) good = apart([&] { point(x); }) && good;
    return good;
}
}  // namespace

int main(int argc, char** argv)
{
    bool instant = false;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--instant") == 0) {
            instant = true;
        } else if (std::strcmp(argv[i], "--guarded") == 0) {
            kro::setSafeguards(kro::kAllSafeguards);
            s_candidate = "guarded";
        } else if (std::strcmp(argv[i], "--budget") == 0 && i + 1 < argc) {
            s_budget = std::atof(argv[++i]);
        } else {
            std::fprintf(stderr, "usage: GrowthBench [--guarded] [--budget SECONDS] [--instant]\n");
            return 2;
        }
    }
    Poco::Logger::root().setLevel(Poco::Message::PRIO_FATAL);
    if (instant) s_budget = 0.005;
    const auto some = [&](std::vector<int> all) {
        if (instant) all.resize(2);
        return all;
    };
    bool good = curve([](int n) { subscriptions(n, false); }, some({10, 100, 1000, 10000, 100000}));
    good = curve([](int n) { subscriptions(n, true); }, some({10, 100, 1000, 10000, 100000})) && good;
    good = curve(handlers, some({1, 10, 100})) && good;
    const bool whole = curve(clients, some({1, 8, 64}));
    tell("inbound growth", "ended early", "clients", s_candidate, whole ? 0 : 1, "runs");
    good = curve(payload, some({64, 1 << 10, 16 << 10, 256 << 10, 1 << 20, 4 << 20, 20 << 20})) && good;
    good = curve(jsonPayload, some({64, 1 << 10, 16 << 10, 256 << 10, 1 << 20})) && good;
    good = curve(waiting, {instant ? 1000 : 100000}) && good;
    good = curve(periodicTasks, some({10, 100, 1000, 10000})) && good;
    return good ? 0 : 1;  // that of clients is a figure: all threads busy ends the settled process
}
