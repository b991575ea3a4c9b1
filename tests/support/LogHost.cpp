// A host of the log in a process of its own, for what can't be seen from within a test program: the first
// loadLogging(), the end of the process, forks, a real midnight. Ends with 0 if all went as it should.
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include <Poco/Exception.h>
#include <Poco/Logger.h>

#include "Logger.h"
#include "Safeguards.h"
#include "support/Eventually.h"
#include "support/LogFiles.h"

namespace kro
{
struct LoggerTestAccess
{
    static void wakeDailyThread() { LoggerImpl::instance().rotation_cv.notify_all(); }
    static bool dailyThreadHasEnded() { return LoggerImpl::instance().rotation_ended; }
};
}  // namespace kro

namespace
{
using kro::test::eventually;
using kro::test::LogWriters;

void expect(bool holds, const char* what)
{
    if (holds) return;
    std::printf("LogHost: not so: %s\n", what);
    std::fflush(stdout);
    _exit(1);
}

void onNewThread(const std::function<void()>& action)
{
    std::thread(action).join();
}

/// Runs `action` in the child of a fork and ends it as a return from main() would.
void inChild(const std::function<void()>& action)
{
    const pid_t child = fork();
    if (child == 0) {
        action();
        std::exit(0);
    }
    int status = 0;
    const bool ended = eventually([&] { return waitpid(child, &status, WNOHANG) == child; });
    if (!ended) kill(child, SIGKILL);
    expect(ended, "the child ends");
    expect(WIFEXITED(status) && WEXITSTATUS(status) == 0, "the child ends with 0");
}

/// Returns from main() with lines still queued.
void returnFromMain()
{
    kro::loadLogging();
    LogWriters(8).write(500);
}

/// The same with threads that log on and on.
void returnFromMainWhileThreadsLog()
{
    kro::loadLogging();
    static std::atomic<int> s_lines{0};
    for (int i = 0; i < 3; ++i) {
        std::thread([] {
            for (;;) {
                KRO_LOG_INFORMATION("line %d", s_lines++);
                std::this_thread::sleep_for(std::chrono::microseconds(200));
            }
        }).detach();
    }
    expect(eventually([] { return s_lines > 1000; }), "the threads log");
}

/// The same after deleteLogger(), with a thread that logs on.
void deleteAndLogOn()
{
    kro::loadLogging();
    onNewThread([] {
        KRO_LOG_INFORMATION("before");
        kro::deleteLogger();
        kro::deleteLogger();
        KRO_LOG_INFORMATION("after");
    });
}

void startAndStopManyTimes()
{
    for (int i = 0; i < kro::test::kStarts; ++i) {
        inChild([] {
            kro::loadLogging();
            kro::deleteLogger();
        });
    }
}

void logBeforeLoading()
{
    expect(kro::logName().empty(), "no name before loadLogging");
    KRO_LOG_INFORMATION("early");
    kro::loadLogging();
    KRO_LOG_INFORMATION("early thread, later line");
    onNewThread([] { KRO_LOG_INFORMATION("late thread"); });
}

void failToLoadAtFirst()
{
    std::filesystem::remove_all("/media/log");
    std::ofstream("/media/log") << "in the way";
    bool thrown = false;
    try {
        kro::loadLogging();
    } catch (const Poco::Exception&) {
        thrown = true;
    }
    expect(thrown, "the failure reaches the caller");
    expect(kro::logName().empty() && !Poco::Logger::has("loghost_logger"), "nothing is registered");
    std::filesystem::remove("/media/log");
    kro::loadLogging();
    KRO_LOG_INFORMATION("loaded at last");
}

void forkWhileThreadsLog()
{
    kro::loadLogging();
    LogWriters writers(4);
    writers.writeUntilStopped();
    for (int i = 0; i < 20; ++i) {
        inChild([] {
            KRO_LOG_INFORMATION("from a child");
            onNewThread([] { KRO_LOG_INFORMATION("from a child"); });
        });
        inChild([] {
            kro::loadLogging();
            KRO_LOG_INFORMATION("from a child that loaded");
            kro::deleteLogger();
        });
    }
    writers.stop();
    kro::deleteLogger();
}

/// Goes on until the renewal is over and every thread has logged after it.
void logThroughMidnight()
{
    kro::loadLogging();
    LogWriters writers(8);
    writers.writeUntilStopped();
    expect(eventually([] { return kro::test::logFiles("loghost").size() == 2; }), "midnight comes");
    writers.waitForMore(20);
    writers.stop();
    // No deleteLogger() here and below: straight after a renewal it may have to wait for the next one.
}

/// As above, but with the directory out of reach: the former file stays in use.
void failAtMidnight()
{
    kro::loadLogging();
    onNewThread([] { KRO_LOG_INFORMATION("before midnight"); });
    kro::test::flushLog();  // the file is open from here on
    std::filesystem::rename("/media/log", "/media/kept");
    std::ofstream("/media/log") << "in the way";
    expect(eventually([] {
               const auto files = kro::test::logFiles("loghost", "/media/kept/tolvan");
               const auto lines = kro::test::linesOf(files.at(0));
               return !lines.empty() && lines.back().find(" Scheduling rotation at") != std::string::npos &&
                      std::count_if(lines.begin(), lines.end(), [](const std::string& line) {
                          return line.find("Rotation thread error: ") != std::string::npos;
                      }) == 1;
           }),
           "the failed renewal is logged, and the next one planned");
    std::filesystem::remove("/media/log");
    std::filesystem::rename("/media/kept", "/media/log");
}

void wakeTheDailyThread()
{
    kro::loadLogging();
    kro::LoggerTestAccess::wakeDailyThread();
    expect(eventually(&kro::LoggerTestAccess::dailyThreadHasEnded), "a wait cut short ends the thread");
    kro::loadLogging();
    kro::deleteLogger();
}

/// The guarded way: woken early the thread waits on, renews at midnight, and deleteLogger() straight behind the
/// renewal returns.
void wakeTheSteadyThread()
{
    kro::setSafeguards(kro::kSteadyMidnight);
    kro::loadLogging();
    for (int i = 0; i < 100; ++i) kro::LoggerTestAccess::wakeDailyThread();
    expect(eventually([] {
               const auto lines = kro::test::linesOf(kro::test::logFiles("loghost").at(0));
               return !lines.empty() && lines.back().find(":Rotating log file (daily)!") != std::string::npos;
           }),
           "midnight is met");
    kro::deleteLogger();
}

/// Puts a hole of nearly 10 MB into the file a dozen times and more: it is archived with the next lines.
void fillArchives()
{
    kro::loadLogging();
    for (int i = 0; i < 14; ++i) {
        KRO_LOG_INFORMATION("file %d", i);
        kro::test::flushLog();
        std::filesystem::resize_file(kro::test::logFiles("loghost").back(), 10u << 20);
        KRO_LOG_INFORMATION("the end of file %d", i);
        kro::test::flushLog();
    }
}

/// A directory stands where the file has to go.
void logWithoutAFile()
{
    kro::loadLogging();
    kro::test::flushLog();
    const std::string path = kro::test::logFiles("loghost").back();
    std::filesystem::remove(path);
    std::filesystem::create_directory(path);
    kro::loadLogging();
    KRO_LOG_WARNING("to the console alone");
}
}  // namespace

int main(int argc, char** argv)
{
    const std::map<std::string, void (*)()> modes{
        {"returnFromMain", returnFromMain},
        {"returnFromMainWhileThreadsLog", returnFromMainWhileThreadsLog},
        {"deleteAndLogOn", deleteAndLogOn},
        {"startAndStopManyTimes", startAndStopManyTimes},
        {"logBeforeLoading", logBeforeLoading},
        {"failToLoadAtFirst", failToLoadAtFirst},
        {"forkWhileThreadsLog", forkWhileThreadsLog},
        {"logThroughMidnight", logThroughMidnight},
        {"failAtMidnight", failAtMidnight},
        {"wakeTheDailyThread", wakeTheDailyThread},
        {"wakeTheSteadyThread", wakeTheSteadyThread},
        {"fillArchives", fillArchives},
        {"logWithoutAFile", logWithoutAFile},
    };
    expect(argc == 2 && modes.count(argv[1]) == 1, "one known mode is given");
    modes.at(argv[1])();
    return 0;
}
