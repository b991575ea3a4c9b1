// The periodic tasks' long run: tasks of 10 ms to 1 s under the real monitor.
//
//     PeriodicTaskSoak [SECONDS [TASKS]]      180 and 50 by default
//
// The tests run it for a second with 8 tasks: more than 32 may fall due together on a machine that stalls,
// and a full pool ends the process. So short a run only reports; from 10 s on a task that never ran is a
// failure.
//
// Reports every tenth of the time, and at the end for all tasks together:
//   drift     how much longer the mean period of a task is than its own, in ms and percent: a run is noticed
//             up to one monitor interval late, and what was missed is not made up, so it is hardly below 0;
//   memory    resident set, and its growth per run: every run leaves its adapter in the manager's pool.

#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>

#include <Poco/Logger.h>

#include "PeriodicTaskManager.h"

namespace
{
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr std::size_t kMostTasks = 50;

struct Series  // of one task; written by one run at a time
{
    std::chrono::milliseconds period{0};
    std::atomic<long> runs{0};
    std::atomic<Clock::rep> first{0};
    std::atomic<Clock::rep> last{0};
    std::atomic<Clock::rep> longest{0};  // between two runs

    void note()
    {
        const Clock::rep now = Clock::now().time_since_epoch().count();
        if (runs == 0)
            first = now;
        else
            longest = std::max(longest.load(), now - last);
        last = now;
        ++runs;
    }
    /// Mean period beyond the task's own, in ms; 0 before the second run.
    double driftMs() const
    {
        if (runs < 2) return 0;
        const Clock::duration span(last - first);
        return std::chrono::duration<double, std::milli>(span).count() / static_cast<double>(runs - 1) -
               static_cast<double>(period.count());
    }
};

long residentBytes()
{
    long pages = 0;
    std::ifstream("/proc/self/statm") >> pages >> pages;
    return pages * sysconf(_SC_PAGESIZE);
}

void report(const std::array<Series, kMostTasks>& all, double seconds, long bytes_at_start)
{
    long runs = 0;
    double worst_ms = 0;
    double worst_percent = 0;
    double longest_percent = 0;
    for (const Series& series : all) {
        if (series.period.count() == 0) continue;  // no such task
        const double period_ms = static_cast<double>(series.period.count());
        runs += series.runs;
        worst_ms = std::max(worst_ms, series.driftMs());
        worst_percent = std::max(worst_percent, 100 * series.driftMs() / period_ms);
        const std::chrono::duration<double, std::milli> longest = Clock::duration(series.longest.load());
        longest_percent = std::max(longest_percent, 100 * longest.count() / period_ms);
    }
    const long grown = residentBytes() - bytes_at_start;
    std::printf(
        "%7.1f s %9ld runs  drift: worst mean %+.2f ms, %+.1f %%, longest wait %.0f %% of its period  "
        "memory %.1f MB, %+ld bytes a run\n",
        seconds, runs, worst_ms, worst_percent, longest_percent, static_cast<double>(residentBytes()) / 1e6,
        runs > 0 ? grown / runs : 0);
    std::fflush(stdout);
}
}  // namespace

int main(int argc, char** argv)
{
    const double seconds = argc > 1 ? std::atof(argv[1]) : 180;
    Poco::Logger::root().setLevel(Poco::Message::PRIO_ERROR);  // a line at each pass is not what is measured
    const int given = argc > 2 ? std::atoi(argv[2]) : static_cast<int>(kMostTasks);
    const int tasks = std::clamp(given, 2, static_cast<int>(kMostTasks));
    static std::array<Series, kMostTasks> all;  // outlives the runs that end while the process exits
    auto& manager = kro::PeriodicTaskManager::getInstance();
    for (int i = 0; i < tasks; ++i) {
        Series& series = all[static_cast<std::size_t>(i)];
        series.period = 10ms + i * 990ms / (tasks - 1);
        std::string name = "soak " + std::to_string(i);
        manager.registerTask(
            name, series.period, [&series] { series.note(); }, 0ms);
        std::this_thread::sleep_for(3ms);  // or all of them fall due together, again and again
    }
    const long bytes_at_start = residentBytes();
    const auto start = Clock::now();
    manager.startPeriodMonitorTask();
    for (int step = 1; step <= 10; ++step) {
        std::this_thread::sleep_until(start + std::chrono::duration_cast<Clock::duration>(
                                                  std::chrono::duration<double>(seconds * step / 10)));
        report(all, seconds * step / 10, bytes_at_start);
    }
    manager.stopPeriodMonitorTask();
    for (const Series& series : all)
        if (seconds >= 10 && series.runs == 0 && series.period.count() != 0) {
            std::printf("a task of %ld ms never ran\n", static_cast<long>(series.period.count()));
            return 1;
        }
    return 0;
}
