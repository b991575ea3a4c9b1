// From the wire to a handler: messages a second, processor time, memory and latency of one subscriber, in a
// process of its own. The process that measures plays the broker on a raw socket, and costs so little that the
// subscriber is the bottleneck. It keeps at most WINDOW messages unhandled: a library that ends its process when
// its threads are all busy is not to meet that, and who is measured beside it gets the same window.
//
//     InboundBench --check                             each candidate for an instant
//     InboundBench --candidates                        their names
//     InboundBench CANDIDATE [--qos Q] [--bytes B] [--messages N] [--window W] [--step S] [--bulk]
//                                                      S: the figures of each S messages instead, for a curve
//                                                      bulk: as many messages in a segment as the window allows;
//                                                      else one, as a broker sends them
//     InboundBench CANDIDATE --latency [--qos Q] [--bytes B] [--messages N]
//                                                      1,000 messages a second behind a real broker
//
// A subscriber that ends before its time is told as a figure of its own, "ended", and is no failure.
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "Figures.h"
#include "MqttWire.h"
#include "Subscribers.h"
#include "support/Broker.h"

namespace
{
using namespace kro::bench;

const std::string kTopic = "bench/inbound";

struct Options
{
    int qos = 0;
    std::size_t bytes = 64;
    std::size_t messages = 20000;
    std::size_t window = 16;
    std::size_t step = 0;
    bool bulk = false;
    bool latency = false;
};

struct Shared  // between the subscriber's process and this one
{
    static constexpr std::size_t kMostTimes = 1u << 20;
    std::atomic<std::size_t> handled{0};
    std::int64_t latency_ns[kMostTimes];
};

std::int64_t nowNs()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch()).count();
}

/// Forked while this process has a single thread.
class SubscriberProcess
{
public:
    SubscriberProcess(const std::string& candidate, const std::string& uri, const Options& options)
    {
        void* const memory =
            mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        shared = new (memory) Shared;
        process = fork();
        if (process == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            subscribe(candidate, uri, options);
        }
    }
    ~SubscriberProcess()
    {
        kill(process, SIGKILL);
        waitpid(process, nullptr, 0);
        munmap(shared, sizeof(Shared));
    }
    SubscriberProcess(const SubscriberProcess&) = delete;
    SubscriberProcess& operator=(const SubscriberProcess&) = delete;

    std::size_t handled() const { return shared->handled.load(std::memory_order_relaxed); }
    const std::int64_t* latencies() const { return shared->latency_ns; }
    bool ended() const { return waitpid(process, nullptr, WNOHANG) != 0; }
    double resident() const { return residentBytes(std::to_string(process)); }
    double sleeps() const  // how often its threads, those that still live, have gone to sleep
    {
        double sum = 0;
        std::error_code ignored;
        const std::string tasks = "/proc/" + std::to_string(process) + "/task";
        for (const auto& task : std::filesystem::directory_iterator(tasks, ignored)) {
            std::ifstream status(task.path() / "status");
            for (std::string word; status >> word;)
                if (double times = 0; word == "voluntary_ctxt_switches:" && status >> times) sum += times;
        }
        return sum;
    }
    double processorSeconds() const  // of all its threads
    {
        clockid_t clock{};
        timespec time{};
        if (clock_getcpuclockid(process, &clock) != 0 || clock_gettime(clock, &time) != 0) return 0;
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
    }

private:
    [[noreturn]] void subscribe(const std::string& candidate, const std::string& uri, const Options& options)
    {
        std::freopen("/dev/null", "w", stderr);  // what it says when it ends
        const bool timed = options.latency;
        subscribers().at(candidate)(uri, kTopic, options.qos,
                                    [to = shared, timed](const void* payload, std::size_t) {
                                        std::int64_t sent = 0;
                                        if (timed) std::memcpy(&sent, payload, sizeof sent);
                                        const std::size_t i = to->handled.fetch_add(1);
                                        if (timed) to->latency_ns[i % Shared::kMostTimes] = nowNs() - sent;
                                    });
        for (;;) pause();
    }

    Shared* shared;
    pid_t process;
};

std::string size(std::size_t bytes)
{
    return bytes >= 1024 ? std::to_string(bytes / 1024) + " KiB" : std::to_string(bytes) + " B";
}

std::string describe(const Options& options)
{
    return "QoS " + std::to_string(options.qos) + ", " + size(options.bytes);
}

void nap()
{
    const timespec pause{0, 15000};
    nanosleep(&pause, nullptr);
}

/// @return whether the subscriber lived to the end.
bool measureRate(const std::string& candidate, const Options& options)
{
    MqttWire wire;
    const std::string uri = wire.listen();
    const auto start = Clock::now();
    const SubscriberProcess subscriber(candidate, uri, options);
    wire.acceptOne();
    while (!wire.subscribed)
        if (!wire.serve(true)) return false;
    tell("start", "from main to subscribed", "one client", candidate, secondsSince(start) * 1e3, "ms");

    const std::string packet = MqttWire::publishPacket(kTopic, std::string(options.bytes, 'x'), options.qos);
    const std::size_t most = options.bulk ? std::max<std::size_t>(options.window / 2, 1) : 1;
    const std::size_t batch = std::clamp<std::size_t>((256 << 10) / packet.size(), 1, most);
    std::string packets;
    for (std::size_t i = 0; i < batch; ++i) packets += packet;
    const std::size_t id_offset = MqttWire::idOffset(kTopic, options.bytes);

    struct Mark
    {
        double seconds, processor;
    };
    std::vector<Mark> marks;
    const double resident = subscriber.resident();
    const double sleeps = subscriber.sleeps();
    const double processor = subscriber.processorSeconds();
    const auto begin = Clock::now();
    const auto mark = [&] {
        marks.push_back({secondsSince(begin), subscriber.processorSeconds() - processor});
    };
    mark();
    std::size_t sent = 0;
    auto last_progress = begin;
    for (std::size_t handled = 0, before = 0;
         handled < options.messages || (options.qos > 0 && wire.acknowledged < options.messages);)
    {
        if (options.qos > 0 || sent % 1024 == 0) wire.serve(false);
        handled = subscriber.handled();
        if (handled != before) {
            while (options.step > 0 && handled >= marks.size() * options.step) mark();
            before = handled;
            last_progress = Clock::now();
        } else if (secondsSince(last_progress) > 1) {
            wire.serve(false);
            if (subscriber.ended() || secondsSince(last_progress) > 30) break;
        }
        const std::size_t room = std::min(
            {options.messages - sent, options.window - std::min(options.window, sent - handled), batch});
        if (room < std::min(batch, options.messages - sent) || sent == options.messages) {
            nap();
            continue;
        }
        if (options.qos > 0) {
            for (std::size_t i = 0; i < room; ++i) {
                const std::size_t id = (sent + i) % 65535 + 1;
                packets[i * packet.size() + id_offset] = static_cast<char>(id >> 8);
                packets[i * packet.size() + id_offset + 1] = static_cast<char>(id);
            }
        }
        if (!wire.send(packets.data(), room * packet.size())) break;
        sent += room;
    }
    mark();
    const std::string where =
        describe(options) + ", window " + std::to_string(options.window) + (options.bulk ? ", in bulk" : "");
    const auto messages = static_cast<double>(options.messages);
    const bool whole = subscriber.handled() >= options.messages;
    tell("inbound", "ended early", where, candidate, whole ? 0 : 1, "runs");
    if (!whole) {
        tell("inbound", "handled before the end", where, candidate, static_cast<double>(subscriber.handled()),
             "messages");
        return false;
    }
    const Mark& end = marks.back();
    if (options.step == 0) {
        tell("inbound", "rate", where, candidate, messages / end.seconds, "messages/s");
        tell("inbound", "processor", where, candidate, end.processor / messages * 1e6, "s per million");
        tell("inbound", "threads put to sleep", where, candidate, (subscriber.sleeps() - sleeps) / messages,
             "times a message");
    }
    const auto step = static_cast<double>(options.step);
    for (std::size_t i = 1; options.step > 0 && i * options.step <= options.messages && i < marks.size(); ++i)
    {
        const auto x = static_cast<double>(i) * step;
        tell("inbound growth", "time over the run", where, candidate,
             (marks[i].seconds - marks[i - 1].seconds) / step * 1e6, "us a message", x);
        tell("inbound growth", "processor over the run", where, candidate,
             (marks[i].processor - marks[i - 1].processor) / step * 1e6, "us a message", x);
    }
    if (options.messages >= 1000)
        tell("memory", "kept after messages handled",
             where + ", " + std::to_string(options.messages) + " messages", candidate,
             subscriber.resident() - resident, "bytes");
    return true;
}

bool measureLatency(const std::string& candidate, const Options& options)
{
    constexpr std::size_t kWarmUp = 200;
    const std::size_t messages = std::min(options.messages + kWarmUp, Shared::kMostTimes);
    const kro::test::Broker broker;
    const SubscriberProcess subscriber(candidate, broker.uri(), options);
    MqttWire wire;
    wire.connect(broker.uri(), "sender");
    std::string packet = MqttWire::publishPacket(kTopic, std::string(options.bytes, 'x'), options.qos);
    const auto publish = [&] {
        const std::int64_t now = nowNs();
        std::memcpy(&packet[packet.size() - options.bytes], &now, sizeof now);
        wire.send(packet.data(), packet.size());
        wire.serve(false);
    };
    for (int i = 0; subscriber.handled() == 0; ++i) {  // until the broker has the subscription
        if (i > 1000) return false;
        publish();
        usleep(20000);
    }
    const std::size_t first = subscriber.handled();
    auto next = Clock::now();
    for (std::size_t i = 0; i < messages; ++i) {
        std::this_thread::sleep_until(next += std::chrono::milliseconds(1));
        publish();
    }
    for (int i = 0; i < 2000 && subscriber.handled() < first + messages; ++i) usleep(1000);
    const std::string where = describe(options) + ", 1,000/s behind mosquitto";
    const bool whole = subscriber.handled() >= first + messages;
    tell("latency", "ended early", where, candidate, whole ? 0 : 1, "runs");
    if (!whole) return false;
    std::vector<std::int64_t> times(subscriber.latencies() + first + kWarmUp,
                                    subscriber.latencies() + first + messages);
    std::sort(times.begin(), times.end());
    tell("latency", "p50", where, candidate, static_cast<double>(times[times.size() / 2]) / 1e3, "us");
    tell("latency", "p99", where, candidate, static_cast<double>(times[times.size() * 99 / 100]) / 1e3, "us");
    return true;
}

bool check()
{
    Options few;
    few.messages = 300;
    few.window = 4;
    Options timed;
    timed.latency = true;
    timed.messages = 50;
    bool good = true;
    for (const auto& entry : subscribers()) {
        for (few.qos = 0; few.qos < 2; ++few.qos) good = measureRate(entry.first, few) && good;
        measureLatency(entry.first, timed);  // without a window, so a machine that stalls may end it
    }
    return good;
}
}  // namespace

int main(int argc, char** argv)
{
    prctl(PR_SET_TIMERSLACK, 1);  // of the feeder's naps
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    const std::string candidate = arguments.empty() ? "" : arguments[0];
    if (candidate == "--check") return check() ? 0 : 1;
    if (candidate == "--candidates") {
        for (const auto& entry : subscribers()) std::cout << entry.first << "\n";
        return 0;
    }
    Options options;
    bool good = subscribers().count(candidate) > 0;
    for (std::size_t i = 1; good && i < arguments.size(); ++i) {
        const std::string& name = arguments[i];
        if (name == "--latency" || name == "--bulk") {
            (name == "--latency" ? options.latency : options.bulk) = true;
            continue;
        }
        const std::size_t value =
            ++i < arguments.size() ? std::strtoul(arguments[i].c_str(), nullptr, 10) : 0;
        if (name == "--qos")
            options.qos = value > 0 ? 1 : 0;
        else if (name == "--bytes")
            options.bytes = std::max(value, sizeof(std::int64_t));
        else if (name == "--messages")
            options.messages = std::max<std::size_t>(value, 1);
        else if (name == "--window")
            options.window = std::max<std::size_t>(value, 1);
        else if (name == "--step")
            options.step = value;
        else
            good = false;
    }
    if (!good) {
        std::cerr
            << "usage: InboundBench --check | --candidates | CANDIDATE [OPTION...]; the source tells them\n";
        return 2;
    }
    if (options.latency)
        measureLatency(candidate, options);
    else
        measureRate(candidate, options);
}
