#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include <Poco/ConsoleChannel.h>
#include <Poco/FileChannel.h>
#include <Poco/PatternFormatter.h>

#include "LogSplitter.h"
#include "Logger.h"
#include "support/Eventually.h"
#include "support/LogFiles.h"

extern char** environ;

namespace kro
{
struct LoggerTestAccess
{
    static std::string path() { return LoggerImpl::instance().log_file_path; }
    static std::vector<const NonBlockingLoggerChannel*> branches(const LogSplitter& splitter)
    {
        return {splitter.current.load()->file.get(), splitter.current.load()->console.get()};
    }
    static std::size_t limit(const NonBlockingLoggerChannel& branch) { return branch.max_queue_; }
    static const Poco::Channel& target(const NonBlockingLoggerChannel& branch) { return *branch.channel_; }
    static std::time_t nextMidnight(std::time_t now) { return LoggerImpl::nextMidnight(now); }
};

namespace
{
using test::eventually;
using test::linesOf;
using test::logFiles;
using test::LogWriters;
using Access = LoggerTestAccess;

/// Standard error leads to a file, or to a pipe that is full and that nobody reads, until
/// the end of the scope.
class ConsoleGuard
{
public:
    explicit ConsoleGuard(bool stalled = false, const char* path = "/dev/null") : former(dup(STDERR_FILENO))
    {
        int target = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
        if (stalled) {
            close(target);
            EXPECT_EQ(pipe2(unread, O_CLOEXEC), 0);
            target = unread[1];
            const int flags = fcntl(target, F_GETFL);
            fcntl(target, F_SETFL, flags | O_NONBLOCK);
            while (write(target, "x", 1) == 1) {
            }
            fcntl(target, F_SETFL, flags);
        }
        dup2(target, STDERR_FILENO);
        close(target);
    }
    ~ConsoleGuard()
    {
        dup2(former, STDERR_FILENO);
        close(former);
        if (unread[0] >= 0) close(unread[0]);
    }
    ConsoleGuard(const ConsoleGuard&) = delete;
    ConsoleGuard& operator=(const ConsoleGuard&) = delete;

private:
    const int former;
    int unread[2] = {-1, -1};
};

class LogFilesTest : public testing::Test
{
protected:
    void SetUp() override
    {
        std::filesystem::remove_all("/media/log");
        putMidnight(std::chrono::hours(12));  // far from here, whatever the time of day
    }
    void TearDown() override { unsetenv("TZ"); }

    /// Puts the local midnight so far ahead, for the processes started from here.
    static void putMidnight(std::chrono::seconds ahead)
    {
        const std::time_t west = (std::time(nullptr) + ahead.count()) % 86400;  // UTC's time of day then
        char zone[32];
        std::snprintf(zone, sizeof zone, "KRO%02d:%02d:%02d", static_cast<int>(west / 3600),
                      static_cast<int>(west / 60 % 60), static_cast<int>(west % 60));
        setenv("TZ", zone, 1);
    }

    /// The thread sanitizer sleeps a second at each exit, unless told otherwise.
    static void SetUpTestSuite()
    {
        const char* const options = std::getenv("TSAN_OPTIONS");
        setenv("TSAN_OPTIONS",
               ((options == nullptr ? "" : options) + std::string(" atexit_sleep_ms=0")).c_str(), 1);
    }

    /// Runs LogHost in `mode` to its end.
    /// @return its exit code, -1 if a signal ended it or it hung.
    static int runHost(const char* mode, std::chrono::seconds deadline = std::chrono::seconds(60),
                       std::string program = KRO_LOG_HOST)
    {
        std::string mode_argument = mode;
        char* arguments[] = {program.data(), mode_argument.data(), nullptr};
        pid_t host = 0;
        if (posix_spawn(&host, program.c_str(), nullptr, nullptr, arguments, environ) != 0) return -1;
        int status = 0;
        if (!eventually([&] { return waitpid(host, &status, WNOHANG) == host; }, deadline)) {
            kill(host, SIGKILL);
            waitpid(host, &status, 0);
        }
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    static std::vector<std::string> hostLines() { return linesOf(logFiles("loghost")); }
    /// @return the texts of the host's lines.
    static std::vector<std::string> hostTexts()
    {
        std::vector<std::string> texts;
        for (const std::string& line : hostLines()) {
            const std::string source = "2026-11-13 00:00:00.000 loghost_logger:";
            const std::size_t file = source.size();
            const std::size_t number = line.find(':', file);
            const std::size_t priority = line.find(':', number + 1);
            const std::size_t text = line.find(':', priority + 1);
            EXPECT_EQ(line.substr(23, file - 23), source.substr(23)) << line;
            EXPECT_NE(text, std::string::npos) << line;
            texts.push_back(line.substr(text + 1));
        }
        return texts;
    }
    static std::string today()
    {
        const std::time_t now = std::time(nullptr);
        char date[16];
        std::strftime(date, sizeof date, "%Y-%m-%d", std::localtime(&now));
        return date;
    }

    const ConsoleGuard quiet;
};

TEST_F(LogFilesTest, BuildsTheWholeGraphUnderTheExecutablesName)
{
    loadLogging();
    EXPECT_EQ(logName(), "logfilestest_logger");
    EXPECT_EQ(Access::path(), "/media/log/tolvan//logfilestest-" + today() + ".log");
    const Poco::Logger::Ptr logger = Poco::Logger::has(logName());
    ASSERT_TRUE(logger);
    EXPECT_EQ(logger->getLevel(), 8);
    const auto formatting = logger->getChannel().cast<Poco::FormattingChannel>();
    ASSERT_TRUE(formatting);
    const auto formatter = formatting->getFormatter().cast<Poco::PatternFormatter>();
    ASSERT_TRUE(formatter);
    EXPECT_EQ(formatter->getProperty("pattern"), "%Y-%m-%d %H:%M:%S.%i %s:%O:%u:%p:%t");
    EXPECT_EQ(formatter->getProperty("times"), "local");
    const auto splitter = formatting->getChannel().cast<LogSplitter>();
    ASSERT_TRUE(splitter);
    EXPECT_EQ(splitter->count(), 2);
    const auto branches = Access::branches(*splitter);
    ASSERT_EQ(branches.size(), 2u);
    {
        EXPECT_EQ(Access::limit(*branches[0]), 100000u);
        const auto* const file = dynamic_cast<const Poco::FileChannel*>(&Access::target(*branches[0]));
        ASSERT_NE(file, nullptr);
        const std::pair<const char*, std::string> properties[] = {{"path", Access::path()},
                                                                  {"times", "local"},
                                                                  {"rotation", "10M"},
                                                                  {"archive", "timestamp"},
                                                                  {"purgeCount", "10"}};
        for (const auto& [name, value] : properties) EXPECT_EQ(file->getProperty(name), value);
        EXPECT_EQ(Access::limit(*branches[1]), 1000u);
        const auto* const console =
            dynamic_cast<const Poco::ColorConsoleChannel*>(&Access::target(*branches[1]));
        ASSERT_NE(console, nullptr);
        for (const char* const name : {"informationColor", "noticeColor"})
            EXPECT_EQ(console->getProperty(name), "cyan");
        EXPECT_EQ(console->getProperty("enableColors"), "true");
    }

    // A host's own use of the logger, and the level that it sets, go the same way as a log site's lines.
    std::thread([&] {
        EXPECT_EQ(&cachedLogger(), logger.get());
        cachedLogger().notice("by hand", "/a/b/Host.cpp", 7);
        Poco::Logger::setLevel(logName(), Poco::Message::PRIO_ERROR);
        KRO_LOG_WARNING("not let through");
        KRO_LOG_ERROR("let through");
    }).join();
    test::flushLog();
    const auto lines = linesOf(Access::path());
    ASSERT_GE(lines.size(), 2u);
    EXPECT_NE(lines[lines.size() - 2].find(" logfilestest_logger:Host.cpp:7:Notice:by hand"),
              std::string::npos);
    EXPECT_NE(lines.back().find(":LogFilesTest.cpp:"), std::string::npos);
    EXPECT_NE(lines.back().find(":Error:let through"), std::string::npos);
}

TEST_F(LogFilesTest, RenewsUnderLoadWithEveryLineInTheFileOfItsDay)
{
    constexpr std::size_t kWriters = 8;
    constexpr int kRenewals = 5;
    loadLogging();
    const Poco::Logger* const logger = Poco::Logger::has(logName()).get();
    const std::string path = Access::path();
    std::vector<std::string> days;
    {
        LogWriters writers(kWriters);
        writers.writeUntilStopped();
        for (int day = 0; day < kRenewals; ++day) {
            writers.waitForMore(50);
            ASSERT_TRUE(eventually([&] { return std::filesystem::exists(path); }));
            // The open file takes its lines on under the new name, as yesterday's does; today's is made anew.
            days.push_back(path + "." + std::to_string(day));
            std::filesystem::rename(path, days.back());
            std::thread([] { KRO_LOG_WARNING("queued before the renewal"); }).join();
            LoggerImpl::instance().initLogger();
            const auto size = std::filesystem::file_size(days.back());
            EXPECT_NE(linesOf(days.back()).back(), "") << "written out when the renewal has ended";
            writers.waitForMore(5);
            EXPECT_EQ(std::filesystem::file_size(days.back()), size) << "nothing later goes to the old file";
        }
        writers.waitForMore(50);
    }
    test::flushLog();
    days.push_back(path);
    EXPECT_EQ(LogWriters::faultIn(linesOf(days), kWriters), "");
    for (int day = 0; day < kRenewals; ++day) {
        const auto lines = linesOf(days[static_cast<std::size_t>(day)]);
        EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                                [](const std::string& line) {
                                    return line.find("queued before the renewal") != std::string::npos;
                                }),
                  1);
    }
    EXPECT_EQ(Poco::Logger::has(logName()).get(), logger) << "threads hold its address";
}

TEST_F(LogFilesTest, KeepsNothingOfFormerDays)
{
    loadLogging();
    const auto entries = [](const char* directory) {
        return std::distance(std::filesystem::directory_iterator(directory), {});
    };
    const auto threads = entries("/proc/self/task");
    const auto descriptors = entries("/proc/self/fd");
    for (int day = 0; day < 300; ++day) {
        LoggerImpl::instance().initLogger();
        std::thread([] { KRO_LOG_INFORMATION("one a day"); }).join();
    }
    test::flushLog();
    EXPECT_TRUE(eventually([&] { return entries("/proc/self/task") == threads; }));
    EXPECT_LE(entries("/proc/self/fd"), descriptors + 1) << "the present file";
    const auto formatting = Poco::Logger::get(logName()).getChannel().cast<Poco::FormattingChannel>();
    EXPECT_EQ(formatting->getChannel().cast<Poco::SplitterChannel>()->count(), 2);
}

TEST_F(LogFilesTest, TakesItsLoggerBackFromAHostThatTamperedWithIt)
{
    loadLogging();
    Poco::Logger& ours = Poco::Logger::get(logName());
    Poco::Logger::destroy(logName());
    Poco::Logger::get(logName());
    ours.setLevel(1);
    ours.setChannel(nullptr);
    loadLogging();
    std::thread([] { KRO_LOG_INFORMATION("here again"); }).join();
    ours.information("and on the address that threads hold");
    test::flushLog();
    const auto lines = linesOf(Access::path());
    ASSERT_GE(lines.size(), 2u);
    EXPECT_NE(lines[lines.size() - 2].find("here again"), std::string::npos);
    EXPECT_NE(lines.back().find("and on the address that threads hold"), std::string::npos);
}

TEST_F(LogFilesTest, FindsTheNextMidnightAcrossMonthsYearsAndSummerTime)
{
    setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
    tzset();
    const struct
    {
        const char* now;
        const char* midnight;
    } rows[] = {
        {"2026-11-13 00:00:00", "2026-11-14 00:00:00"}, {"2026-11-30 23:59:59", "2026-12-01 00:00:00"},
        {"2026-12-31 12:00:00", "2027-01-01 00:00:00"}, {"2028-02-28 12:00:00", "2028-02-29 00:00:00"},
        {"2026-03-29 01:30:00", "2026-03-30 00:00:00"}, {"2026-10-25 01:30:00", "2026-10-26 00:00:00"}};
    for (const auto& row : rows) {
        std::tm now{};
        strptime(row.now, "%Y-%m-%d %H:%M:%S", &now);
        now.tm_isdst = -1;
        const std::time_t midnight = Access::nextMidnight(std::mktime(&now));
        char text[32];
        std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", std::localtime(&midnight));
        EXPECT_STREQ(text, row.midnight) << row.now;
    }
    unsetenv("TZ");
    tzset();
}

TEST_F(LogFilesTest, GoesOnWhenTheDiskIsFullAndWritesAgainWhenThereIsRoom)
{
    std::filesystem::create_directories("/media/log/tolvan");
    ASSERT_EQ(mount("tmpfs", "/media/log/tolvan", "tmpfs", 0, "size=1m"), 0);
    loadLogging();
    std::thread([] {
        for (int i = 0; i < 3000; ++i) KRO_LOG_INFORMATION("%d %s", i, std::string(1000, 'x'));
    }).join();
    test::flushLog();
    EXPECT_EQ(mount("tmpfs", "/media/log/tolvan", "tmpfs", MS_REMOUNT, "size=8m"), 0);
    EXPECT_TRUE(eventually([] {
        std::thread([] { KRO_LOG_INFORMATION("room again"); }).join();
        test::flushLog();
        const auto lines = linesOf(logFiles("logfilestest"));
        return !lines.empty() && std::any_of(lines.begin(), lines.end(), [](const std::string& line) {
            return line.find("room again") != std::string::npos;
        });
    }));
    loadLogging();  // lets go of the file, so that the disk can be taken away
    std::thread([] { KRO_LOG_INFORMATION("to be moved"); }).join();
    EXPECT_EQ(umount2("/media/log/tolvan", MNT_DETACH), 0);
}

TEST_F(LogFilesTest, ReachesTheFileWhileNobodyReadsTheConsole)
{
    if (test::kThreadSanitizer) GTEST_SKIP() << "it waits for standard error when a process ends";
    const ConsoleGuard stalled(true);
    EXPECT_EQ(runHost("returnFromMain"), 0) << "nor may it hang at its end";
    EXPECT_EQ(LogWriters::faultIn(hostLines(), 8), "");
}

TEST_F(LogFilesTest, ShowsTheLinesInColourOnTheConsole)
{
    const std::string path = "/media/console";
    {
        const ConsoleGuard kept(false, path.c_str());
        EXPECT_EQ(runHost("deleteAndLogOn"), 0);
    }
    std::vector<std::string> coloured;
    for (const std::string& line : hostLines()) coloured.push_back("\x1B[36m" + line + "\x1B[0m");
    EXPECT_EQ(linesOf(path), coloured);
    std::filesystem::remove(path);
}

TEST_F(LogFilesTest, ReachesTheConsoleWhenTheFileCantBeWritten)
{
    const std::string path = "/media/console";
    {
        const ConsoleGuard kept(false, path.c_str());
        EXPECT_EQ(runHost("logWithoutAFile"), 0);
    }
    const auto shown = linesOf(path);
    EXPECT_TRUE(std::any_of(shown.begin(), shown.end(), [](const std::string& line) {
        return line.find("Warning:to the console alone") != std::string::npos;
    }));
    std::filesystem::remove(path);
}

TEST_F(LogFilesTest, NamesLoggerAndFileWithoutTheExecutablesExtensionInLowerCase)
{
    const std::string program = "/media/MyService.bin";
    std::filesystem::copy_file(KRO_LOG_HOST, program);
    EXPECT_EQ(runHost("deleteAndLogOn", std::chrono::seconds(60), program), 0);
    std::filesystem::remove(program);
    const auto files = logFiles("myservice");
    ASSERT_EQ(files.size(), 1u);
    EXPECT_EQ(files[0], "/media/log/tolvan/myservice-" + today() + ".log");
    EXPECT_NE(linesOf(files[0]).front().find(" myservice_logger:"), std::string::npos);
}

TEST_F(LogFilesTest, EndsPromptlyWhileThreadsOfTheHostLogOn)
{
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "threads that outlive main() may be inside POCO while its statics go, and are reported";
#endif
    EXPECT_EQ(runHost("returnFromMainWhileThreadsLog", std::chrono::seconds(30)), 0);
}

TEST_F(LogFilesTest, WritesAllThatWasLoggedWhenTheHostJustReturnsFromMain)
{
    EXPECT_EQ(runHost("returnFromMain"), 0);
    EXPECT_EQ(LogWriters::faultIn(hostLines(), 8), "");
}

TEST_F(LogFilesTest, LogsItsOwnStepsAndLetsThreadsLogOnAfterDeleteLogger)
{
    EXPECT_EQ(runHost("deleteAndLogOn"), 0);
    auto texts = hostTexts();
    const auto scheduling = std::find_if(texts.begin(), texts.end(), [](const std::string& text) {
        return text.find(" Scheduling rotation at: ") == 0 && text.find(" 00:00:00 (local time)") == 35;
    });
    ASSERT_NE(scheduling, texts.end());
    texts.erase(scheduling);
    EXPECT_EQ(texts, (std::vector<std::string>{"Log initialized", "ensureDailyRotationStarted",
                                               "startDailyRotationThread", "before", "Log destroying",
                                               "Log destroyed", "after"}));
}

TEST_F(LogFilesTest, CanBeDeletedStraightAfterItWasLoaded)
{
    EXPECT_EQ(runHost("startAndStopManyTimes", std::chrono::seconds(100)), 0);
    const auto lines = hostLines();
    EXPECT_EQ(std::count_if(
                  lines.begin(), lines.end(),
                  [](const std::string& line) { return line.find(":Log destroyed") != std::string::npos; }),
              test::kStarts);
}

TEST_F(LogFilesTest, NeverShowsTheLinesOfAThreadThatLoggedTooEarly)
{
    EXPECT_EQ(runHost("logBeforeLoading"), 0);
    const auto texts = hostTexts();
    ASSERT_EQ(texts.size(), 2u);
    EXPECT_EQ(texts[0].find(" Scheduling"), 0u);
    EXPECT_EQ(texts[1], "late thread");
}

TEST_F(LogFilesTest, TellsTheCallerThatTheDirectoryCantBeMadeAndLoadsLater)
{
    EXPECT_EQ(runHost("failToLoadAtFirst"), 0);
    EXPECT_EQ(hostTexts().back(), "loaded at last");
}

TEST_F(LogFilesTest, NeitherLosesNorDoublesALineWhenTheHostForks)
{
    if (test::kSanitizer)
        GTEST_SKIP() << "the sanitizers' allocators keep a lock for good that was held at a fork";
    EXPECT_EQ(runHost("forkWhileThreadsLog"), 0);
    const auto lines = hostLines();
    EXPECT_EQ(LogWriters::faultIn(lines, 4), "");
    const auto count = [&](const char* text) {
        return std::count_if(lines.begin(), lines.end(), [text](const std::string& line) {
            return line.size() >= std::strlen(text) &&
                   line.compare(line.size() - std::strlen(text), std::string::npos, text) == 0;
        });
    };
    EXPECT_EQ(count(":from a child"), 0) << "a child has no worker";
    EXPECT_EQ(count(":from a child that loaded"), 20);
}

TEST_F(LogFilesTest, BeginsANewFileAtMidnight)
{
    putMidnight(std::chrono::seconds(8));
    EXPECT_EQ(runHost("logThroughMidnight"), 0);
    const auto files = logFiles("loghost");
    ASSERT_EQ(files.size(), 2u);
    EXPECT_EQ(LogWriters::faultIn(linesOf(files), 8), "");
    const auto date = [](const std::string& path) { return path.substr(path.size() - 14, 10); };
    const auto former = linesOf(files[0]);
    EXPECT_EQ(former.front().substr(0, 10), date(files[0]));
    EXPECT_TRUE(std::any_of(former.begin(), former.end(), [](const std::string& line) {
        return line.find(":Rotating log file (daily)!") != std::string::npos;
    }));
    for (const std::string& line : linesOf(files[1])) ASSERT_EQ(line.substr(0, 10), date(files[1]));
}

TEST_F(LogFilesTest, StaysWithTheFormerFileWhenTheRenewalFails)
{
    putMidnight(std::chrono::seconds(8));
    EXPECT_EQ(runHost("failAtMidnight"), 0);
    EXPECT_EQ(logFiles("loghost").size(), 1u);
    EXPECT_EQ(hostTexts().back().find(" Scheduling rotation at"), 0u);
}

TEST_F(LogFilesTest, EndsTheDailyThreadForGoodWhenItsWaitIsCutShort)
{
    EXPECT_EQ(runHost("wakeTheDailyThread"), 0);
    const auto texts = hostTexts();
    EXPECT_EQ(std::count(texts.begin(), texts.end(), "ensureDailyRotationStarted"), 2);
    EXPECT_EQ(std::count(texts.begin(), texts.end(), "startDailyRotationThread"), 1);
}

TEST_F(LogFilesTest, WaitsOnAfterAnEarlyWakeAndEndsAtOnceWhenItIsGuarded)
{
    putMidnight(std::chrono::seconds(6));
    EXPECT_EQ(runHost("wakeTheSteadyThread"), 0);
}

TEST_F(LogFilesTest, ArchivesAtTenMegabytesAndKeepsTenArchives)
{
    EXPECT_EQ(runHost("fillArchives"), 0);
    const auto files = logFiles("loghost");
    EXPECT_EQ(files.size(), 11u);
    for (const std::string& file : files)
        EXPECT_LT(std::filesystem::file_size(file), (10u << 20) + (1u << 20));
}

}  // namespace
}  // namespace kro
