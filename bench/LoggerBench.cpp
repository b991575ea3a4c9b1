// What a log line costs its caller, and how many lines a second reach the file: the library's log, beside the
// same graph of plain POCO channels, spdlog's asynchronous logger, and the floor, which is a mutex, a deque
// and a moved string. "p50_ns" and "p99_ns" are the figures to look at: the time of one call on the calling
// thread, reading the clock included (some 20 ns), without the pauses in between.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <iostream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <Poco/ConsoleChannel.h>
#include <Poco/FileChannel.h>
#include <Poco/Format.h>
#include <Poco/FormattingChannel.h>
#include <Poco/Logger.h>
#include <Poco/PatternFormatter.h>
#include <Poco/SplitterChannel.h>
#ifdef KRO_WITH_SPDLOG
#include <spdlog/async.h>
#include <spdlog/sinks/ansicolor_sink.h>
#include <spdlog/sinks/basic_file_sink.h>
#endif

#include "LogFormatter.h"
#include "LogSplitter.h"
#include "Logger.h"

namespace
{
using Clock = std::chrono::steady_clock;
using Branch = Poco::AutoPtr<kro::NonBlockingLoggerChannel>;

constexpr std::chrono::seconds kPatience(1);
const int s_shrink =
    std::getenv("KRO_BENCH_INSTANT") == nullptr ? 1 : 20;  // for a run that only shows it runs
const std::string s_topic = "krono/device/telemetry";

/// The library's own log, as a host sets it up.
class Kro
{
public:
    Kro() { kro::loadLogging(); }
    static void line(int number) { KRO_LOG_INFORMATION("Received %s with %d bytes", s_topic, number); }
    static void flush()
    {
        auto formatting = Poco::Logger::get(kro::logName()).getChannel().cast<Poco::FormattingChannel>();
        formatting->getChannel().cast<kro::LogSplitter>()->flush(kPatience);
    }
};

/// The same graph as POCO comes, with the same queues.
class PlainPoco
{
public:
    PlainPoco()
    {
        Poco::AutoPtr<Poco::FileChannel> to_file(new Poco::FileChannel("/media/log/plain.log"));
        to_file->setProperty("times", "local");
        to_file->setProperty("rotation", "10M");
        to_file->setProperty("archive", "timestamp");
        to_file->setProperty("purgeCount", "10");
        file = new kro::NonBlockingLoggerChannel(to_file, 100000);
        console = new kro::NonBlockingLoggerChannel(new Poco::ColorConsoleChannel, 1000);
        Poco::AutoPtr<Poco::SplitterChannel> splitter(new Poco::SplitterChannel);
        splitter->addChannel(file);
        splitter->addChannel(console);
        Poco::AutoPtr<Poco::PatternFormatter> formatter(
            new Poco::PatternFormatter(kro::LogFormatter::kPattern));
        formatter->setProperty("times", "local");
        logger =
            &Poco::Logger::create("loggerbench_plain", new Poco::FormattingChannel(formatter, splitter), 8);
    }
    void line(int number)
    {
        logger->information(Poco::format("Received %s with %d bytes", s_topic, number), __FILE__, __LINE__);
    }
    void flush()
    {
        file->waitWritten(kPatience);
        console->waitWritten(kPatience);
    }

private:
    Branch file;
    Branch console;
    Poco::Logger* logger = nullptr;
};

#ifdef KRO_WITH_SPDLOG
/// The same two outputs and the same fields. Its file is not flushed line by line, as POCO's is.
class Spdlog
{
public:
    Spdlog() { logger->set_pattern("%Y-%m-%d %H:%M:%S.%e %n:%s:%#:%l:%v"); }
    void line(int number)
    {
        logger->log(spdlog::source_loc{__FILE__, __LINE__, ""}, spdlog::level::info,
                    "Received {} with {} bytes", s_topic, number);
    }
    void flush()
    {
        while (pool->queue_size() > 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }

private:
    std::shared_ptr<spdlog::details::thread_pool> pool =
        std::make_shared<spdlog::details::thread_pool>(100000, 1);
    std::shared_ptr<spdlog::async_logger> logger = std::make_shared<spdlog::async_logger>(
        "loggerbench_logger",
        spdlog::sinks_init_list{std::make_shared<spdlog::sinks::basic_file_sink_mt>("/media/log/spdlog.log"),
                                std::make_shared<spdlog::sinks::ansicolor_stderr_sink_mt>()},
        pool, spdlog::async_overflow_policy::overrun_oldest);
};
#endif

/// The least that handing a line to another thread can cost: nothing is formatted, nothing written.
class Floor
{
public:
    void line(int)
    {
        std::string text(100, 'x');
        bool wake = false;
        {
            const std::lock_guard<std::mutex> lock(mutex);
            lines.push_back(std::move(text));
            std::swap(wake, sleeping);
        }
        if (wake) changed.notify_one();
    }
    void flush()
    {
        while (pending() > 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }

private:
    std::size_t pending()
    {
        const std::lock_guard<std::mutex> lock(mutex);
        return lines.size();
    }
    void consume()
    {
        std::deque<std::string> taken;
        for (std::unique_lock<std::mutex> lock(mutex);;) {
            while (lines.empty()) {
                sleeping = true;
                changed.wait(lock);
            }
            taken.swap(lines);
            lock.unlock();
            taken.clear();
            lock.lock();
        }
    }

    std::mutex mutex;  // guards lines and sleeping
    std::condition_variable changed;
    std::deque<std::string> lines;
    bool sleeping = false;
    std::thread consumer{&Floor::consume, this};
};

/// One of each for the whole run, and never destroyed: other threads work on them to the end.
template <typename Log>
Log& log()
{
    static Log* const s_log = new Log;
    return *s_log;
}

void reportPercentiles(benchmark::State& state, std::vector<double>& times_ns)
{
    std::sort(times_ns.begin(), times_ns.end());
    const auto at = [&](std::size_t percent) {
        return benchmark::Counter(times_ns[times_ns.size() * percent / 100], benchmark::Counter::kAvgThreads);
    };
    state.counters["p50_ns"] = at(50);
    state.counters["p99_ns"] = at(99);
}

/// @param burst  lines in a row before the pause that lets the workers catch up; at 1 they are asleep each
/// time.
template <typename Log>
void callOnce(benchmark::State& state, int burst, std::chrono::microseconds pause)
{
    Log& subject = log<Log>();
    std::vector<double> times_ns;
    int number = 0;
    for (auto _ : state) {
        if (number++ % burst == 0) std::this_thread::sleep_for(pause);
        const auto start = Clock::now();
        subject.line(number);
        const std::chrono::duration<double> taken = Clock::now() - start;
        state.SetIterationTime(taken.count());
        times_ns.push_back(taken.count() * 1e9);
    }
    reportPercentiles(state, times_ns);
}

template <typename Log>
void BM_CallWorkerAwake(benchmark::State& state)
{
    callOnce<Log>(state, 1000, std::chrono::milliseconds(15));
}

template <typename Log>
void BM_CallWorkerAsleep(benchmark::State& state)
{
    callOnce<Log>(state, 1, std::chrono::microseconds(300));
}

/// Standard error is a pipe that is full and that nobody reads.
class StalledConsole
{
public:
    StalledConsole()
    {
        if (pipe(ends) != 0) std::abort();
        fcntl(ends[1], F_SETFL, O_NONBLOCK);
        while (write(ends[1], "x", 1) == 1) {
        }
        fcntl(ends[1], F_SETFL, 0);
        dup2(ends[1], STDERR_FILENO);
    }
    ~StalledConsole()
    {
        close(ends[0]);  // the workers' writes fail from here on
        const int nowhere = open("/dev/null", O_WRONLY);
        dup2(nowhere, STDERR_FILENO);
        close(nowhere);
        close(ends[1]);
    }
    StalledConsole(const StalledConsole&) = delete;
    StalledConsole& operator=(const StalledConsole&) = delete;

private:
    int ends[2] = {-1, -1};
};

template <typename Log>
void BM_CallConsoleStalled(benchmark::State& state)
{
    static std::unique_ptr<StalledConsole> s_stalled;
    if (state.thread_index() == 0) {
        s_stalled = std::make_unique<StalledConsole>();
        for (int i = 0; i < 2000; ++i) log<Log>().line(i);  // fills the console's queue
    }
    callOnce<Log>(state, 1000, std::chrono::milliseconds(15));
    if (state.thread_index() == 0) {
        s_stalled.reset();
        log<Log>().flush();
        std::clog.clear();  // the plain graph writes there
    }
}

/// Lines as fast as the callers can, and the time until the last one is written.
template <typename Log>
void BM_LinesIntoTheFile(benchmark::State& state)
{
    const int lines = 40000 / s_shrink;
    const auto callers = static_cast<int>(state.range(0));
    Log& subject = log<Log>();
    for (auto _ : state) {
        std::vector<std::thread> threads;
        for (int i = 0; i < callers; ++i) {
            threads.emplace_back([&subject, lines, callers] {
                for (int line = 0; line < lines / callers; ++line) subject.line(line);
            });
        }
        for (std::thread& thread : threads) thread.join();
        subject.flush();
    }
    state.SetItemsProcessed(state.iterations() * lines);
}

template <typename Log>
void registerAll(const char* name)
{
    const auto add = [name](const char* what, auto function) {
        return benchmark::RegisterBenchmark((std::string(what) + "/" + name).c_str(), function);
    };
    add("CallWorkerAwake", BM_CallWorkerAwake<Log>)
        ->Iterations(20000 / s_shrink)
        ->ThreadRange(1, 16)
        ->UseManualTime();
    add("CallWorkerAsleep", BM_CallWorkerAsleep<Log>)
        ->Iterations(2000 / s_shrink)
        ->Threads(1)
        ->Threads(4)
        ->UseManualTime();
    add("LinesIntoTheFile", BM_LinesIntoTheFile<Log>)
        ->Iterations(3)
        ->ArgName("callers")
        ->Arg(1)
        ->Arg(4)
        ->UseRealTime();
}

template <typename Log>
void registerStalled(const char* name)
{
    benchmark::RegisterBenchmark((std::string("CallConsoleStalled/") + name).c_str(),
                                 BM_CallConsoleStalled<Log>)
        ->Iterations(20000 / s_shrink)
        ->Threads(1)
        ->Threads(4)
        ->UseManualTime();
}
}  // namespace

int main(int argc, char** argv)
{
    if (std::getenv("KRO_DIRS_ARE_PRIVATE") == nullptr)
    {  // the log's directory is the machine's: take another
        std::vector<char*> command{const_cast<char*>(KRO_PRIVATE_DIRS)};
        command.insert(command.end(), argv, argv + argc + 1);
        execv(KRO_PRIVATE_DIRS, command.data());
        std::perror(KRO_PRIVATE_DIRS);
        return 1;
    }
    benchmark::Initialize(&argc, argv);
    std::signal(SIGPIPE, SIG_IGN);
    const int nowhere = open("/dev/null", O_WRONLY);
    dup2(nowhere, STDERR_FILENO);
    close(nowhere);
    log<Kro>();  // makes the directory for all
    registerAll<Kro>("library");
    registerAll<PlainPoco>("plainPoco");
#ifdef KRO_WITH_SPDLOG
    registerAll<Spdlog>("spdlog");
#endif
    registerAll<Floor>("floor");
    registerStalled<Kro>("library");
    registerStalled<PlainPoco>("plainPoco");
#ifdef KRO_WITH_SPDLOG
    registerStalled<Spdlog>("spdlog");
#endif
    registerStalled<Floor>("floor");
    benchmark::RunSpecifiedBenchmarks();
    std::fflush(stdout);
    _exit(0);  // threads of the subjects run on
}
