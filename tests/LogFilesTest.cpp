#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>

#include <Poco/FormattingChannel.h>
#include <Poco/Glob.h>
#include <Poco/RegularExpression.h>

#include "LogSplitter.h"
#include "Safeguards.h"
#include "support/InChild.h"

namespace kro
{
struct LoggerTestAccess
{
    static std::pair<std::size_t, std::size_t> limits(const LogSplitter& splitter)
    {
        return {splitter.current.load()->file->max_queue_, splitter.current.load()->console->max_queue_};
    }
    static std::time_t nextMidnight(std::time_t now) { return LoggerImpl::nextMidnight(now); }
    static void wakeDailyThread() { LoggerImpl::instance().rotation_cv.notify_all(); }
    static bool dailyThreadHasEnded() { return LoggerImpl::instance().rotation_ended; }
};

namespace
{
namespace fs = std::filesystem;
using namespace std::chrono_literals;
using test::eventually;
using test::inChild;
using Access = LoggerTestAccess;
using Lines = std::vector<std::string>;

const std::string kDirectory = "/media/log/tolvan";

/// @return the paths of our log files: of one day first the present file, then its archives.
Lines logFiles(const std::string& directory = kDirectory)
{
    std::set<std::string> paths;
    Poco::Glob::glob(directory + "/logfilestest-*.log*", paths);  // the program is LogFilesTest.bin
    return {paths.begin(), paths.end()};
}

Lines linesOf(const Lines& paths)
{
    Lines lines;
    for (const std::string& path : paths) {
        std::ifstream file(path);
        for (std::string line; std::getline(file, line);) lines.push_back(line);
    }
    return lines;
}

/// @return how many lines hold `text`.
long count(const Lines& lines, const std::string& text)
{
    return std::count_if(lines.begin(), lines.end(),
                         [&](const std::string& line) { return line.find(text) != std::string::npos; });
}

/// @return how many lines of our log files do.
long logged(const std::string& text)
{
    return count(linesOf(logFiles()), text);
}

std::string dateIn(const std::string& path)
{
    return path.substr(path.size() - 14, 10);
}

Poco::AutoPtr<LogSplitter> splitter()
{
    const auto formatting = Poco::Logger::get(logName()).getChannel().cast<Poco::FormattingChannel>();
    return formatting->getChannel().cast<LogSplitter>();
}

/// Logs on a thread that never did, and waits until the line is written, as far as file and console take it.
void logOnNewThread(const std::string& text)
{
    std::thread([&] { KRO_LOG_INFORMATION(text); }).join();
    splitter()->flush(1s);
}

/// Threads that log "writer T line N" in bursts, each N once and in order, until they are stopped.
class LogWriters
{
public:
    LogWriters()
    {
        for (int i = 0; i < kWriters; ++i) {
            threads.emplace_back([this, i] {
                while (!stopped) {
                    KRO_LOG_INFORMATION("writer %d line %d", i, written[i]++);
                    // Slow enough for all to stay in one file, which is archived at 10 MB.
                    if (written[i] % 10 == 0) std::this_thread::sleep_for(10ms);
                }
            });
        }
    }
    ~LogWriters() { stop(); }

    void waitForMore(int lines)
    {
        for (std::atomic<int>& mine : written)
            EXPECT_TRUE(eventually([&mine, target = mine + lines] { return mine >= target; }));
    }
    void stop()
    {
        stopped = true;
        for (std::thread& thread : threads) thread.join();
        threads.clear();
        splitter()->flush(1s);
    }
    /// Expects what was written until stop(): nothing lost, doubled, torn or out of order.
    void expectAllIn(const Lines& lines)
    {
        int next[kWriters] = {};
        for (const std::string& line : lines) {
            const std::size_t at = line.find(":writer ");
            if (at == std::string::npos) continue;
            int& mine = next[line.at(at + 8) % kWriters];
            ASSERT_EQ(line.substr(at),
                      std::string(":writer ") + line[at + 8] + " line " + std::to_string(mine++));
        }
        EXPECT_TRUE(std::equal(written, written + kWriters, next)) << "lines are missing at the end";
    }

private:
    static constexpr int kWriters = 8;  // by which '0' can be divided

    std::atomic<int> written[kWriters] = {};  // lines of each thread
    std::atomic<bool> stopped{false};
    std::vector<std::thread> threads;
};

/// Each test logs in processes of its own, since the first loadLogging() and the end of a process count.
class LogFilesTest : public testing::Test
{
protected:
    void SetUp() override
    {
        for (const char* const path : {"/media/log", "/media/kept", "/media/console", "/media/full"})
            fs::remove_all(path);
        putMidnight(12h);  // far from here, whatever the time of day
    }

    /// Puts the local midnight so far ahead.
    static void putMidnight(std::chrono::seconds ahead)
    {
        const auto west =
            static_cast<int>((std::time(nullptr) + ahead.count()) % 86400);  // UTC's time of day then
        char zone[32];
        std::snprintf(zone, sizeof zone, "KRO%02d:%02d:%02d", west / 3600, west / 60 % 60, west % 60);
        setenv("TZ", zone, 1);
        tzset();
    }

    // Enough for loadLogging() to return before midnight, also on a busy machine and under a sanitizer.
    static constexpr auto kUntilMidnight = 6s;
};

TEST_F(LogFilesTest, LogsItsStepsInColourAndLetsThreadsLogOnAfterDeleteLogger)
{
    const auto host = [] {
        loadLogging();
        EXPECT_EQ(Access::limits(*splitter()), (std::pair<std::size_t, std::size_t>{100000, 1000}));
        std::thread([] {
            cachedLogger().notice("before", "/a/b/Host.cpp", 7);
            deleteLogger();
            deleteLogger();
            KRO_LOG_INFORMATION("after");
        }).join();
    };
    inChild(host, "/media/console");
    const Lines files = logFiles();
    ASSERT_EQ(files.size(), 1u);
    EXPECT_EQ(files[0], kDirectory + "/logfilestest-" + dateIn(files[0]) + ".log");
    const Poco::RegularExpression date("\\d{4}-\\d\\d-\\d\\d"),
        form(
            "^(.{10}) \\d\\d:\\d\\d:\\d\\d\\.\\d{3} logfilestest_logger:"
            "(?:Host.cpp:7|Logger.cpp:\\d+|LogFilesTest.cpp:\\d+):(.*)$");
    Lines texts, coloured;
    for (const std::string& line : linesOf(files)) {
        Lines parts;
        ASSERT_EQ(form.split(line, parts), 3) << line;
        EXPECT_EQ(parts[1], dateIn(files[0]));
        date.subst(parts[2], "DATE");
        texts.push_back(parts[2]);
        coloured.push_back("\x1B[36m" + line + "\x1B[0m");
    }
    EXPECT_EQ(texts,
              (Lines{"Information:Log initialized", "Information:ensureDailyRotationStarted",
                     "Information:startDailyRotationThread",
                     "Information: Scheduling rotation at: DATE 00:00:00 (local time)", "Notice:before",
                     "Information:Log destroying", "Information:Log destroyed", "Information:after"}));
    EXPECT_EQ(linesOf({"/media/console"}), coloured);
}

TEST_F(LogFilesTest, RenewsUnderLoadWithEveryLineInTheFileOfItsDayAndKeepsNothingOfFormerDays)
{
    inChild([] {
        loadLogging();
        const Poco::Logger* const logger = Poco::Logger::has(logName()).get();
        const auto entries = [](const char* directory) {
            return std::distance(fs::directory_iterator(directory), {});
        };
        const auto threads = entries("/proc/self/task"), descriptors = entries("/proc/self/fd");
        Lines days;
        LogWriters writers;
        for (int day = 0; day < 5; ++day) {
            writers.waitForMore(50);
            ASSERT_TRUE(eventually([] { return !logFiles().empty(); }));
            // The open file takes its lines on under the new name, as yesterday's does; today's is made anew.
            days.push_back("/media/log/day" + std::to_string(day));
            fs::rename(logFiles()[0], days.back());
            std::thread([] { KRO_LOG_WARNING("queued before the renewal"); }).join();
            LoggerImpl::instance().initLogger();
            const auto size = fs::file_size(days.back());
            EXPECT_EQ(count(linesOf({days.back()}), "queued before the renewal"), 1)
                << "written when it has ended";
            writers.waitForMore(5);
            EXPECT_EQ(fs::file_size(days.back()), size) << "nothing later goes to the old file";
        }
        writers.stop();
        days.push_back(logFiles().at(0));
        writers.expectAllIn(linesOf(days));
        EXPECT_EQ(Poco::Logger::has(logName()).get(), logger) << "threads hold its address";
        EXPECT_TRUE(eventually([&] { return entries("/proc/self/task") == threads; }));
        EXPECT_LE(entries("/proc/self/fd"), descriptors + 1) << "the present file";
        EXPECT_EQ(splitter()->count(), 2);
    });
}

TEST_F(LogFilesTest, FindsTheNextMidnightAcrossYearsAndSummerTime)
{
    setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
    tzset();
    const std::pair<const char*, const char*> rows[] = {{"2026-11-13 00:00:00", "2026-11-14 00:00:00"},
                                                        {"2026-12-31 23:59:59", "2027-01-01 00:00:00"},
                                                        {"2026-03-29 01:30:00", "2026-03-30 00:00:00"},
                                                        {"2026-10-25 01:30:00", "2026-10-26 00:00:00"}};
    for (const auto& [now_text, midnight_text] : rows) {
        std::tm now{}, midnight{};
        strptime(now_text, "%Y-%m-%d %H:%M:%S", &now);
        strptime(midnight_text, "%Y-%m-%d %H:%M:%S", &midnight);
        now.tm_isdst = midnight.tm_isdst = -1;
        EXPECT_EQ(Access::nextMidnight(std::mktime(&now)), std::mktime(&midnight)) << now_text;
    }
}

TEST_F(LogFilesTest, WritesAllThatWasLoggedWhenTheHostReturnsFromMainAlsoWithAConsoleThatNobodyReads)
{
    const char* full = "/media/full";
    ASSERT_EQ(mkfifo(full, 0600), 0);
    const int unread = open(full, O_RDWR | O_NONBLOCK | O_CLOEXEC);
    while (write(unread, "x", 1) == 1) {
    }
#ifdef __SANITIZE_THREAD__
    full = "/dev/null";  // the sanitizer itself waits for standard error when a process ends
#endif
    for (const char* const console : {"/dev/null", full}) {
        fs::remove_all("/media/log");
        const auto host = [] {
            loadLogging();
            for (int i = 0; i < 4000; ++i) KRO_LOG_INFORMATION("a line of many");
        };
        inChild(host, console);
        EXPECT_EQ(logged("a line of many"), 4000);
    }
}

TEST_F(LogFilesTest, EndsPromptlyWhileThreadsOfTheHostLogOn)
{
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "threads that outlive main() may be inside POCO while its statics go, and are reported";
#endif
    inChild([] {
        loadLogging();
        static auto* const s_writers = new LogWriters;
        s_writers->waitForMore(100);
    });
}

TEST_F(LogFilesTest, CanBeDeletedStraightAfterItWasLoaded)
{
    for (int i = 0; i < 25 && !HasFailure(); ++i)
        inChild([] {
            loadLogging();
            deleteLogger();
        });
    EXPECT_EQ(logged(":Log destroyed"), 25);
}

TEST_F(LogFilesTest, LoadsAfterAFailureWithoutTheLinesOfAThreadThatLoggedTooEarly)
{
    inChild([] {
        KRO_LOG_INFORMATION("early");
        std::ofstream("/media/log") << "in the way";
        EXPECT_THROW(loadLogging(), Poco::Exception);
        fs::remove("/media/log");
        loadLogging();
        KRO_LOG_INFORMATION("early thread, later line");
        logOnNewThread("late thread");
    });
    EXPECT_EQ(linesOf(logFiles()).size(), 2u);
    EXPECT_EQ(logged(":Information:late thread"), 1);
}

TEST_F(LogFilesTest, GoesOnWhenTheDiskIsFullAndWritesAgainWhenThereIsRoom)
{
    fs::create_directories(kDirectory);
    ASSERT_EQ(mount("tmpfs", kDirectory.c_str(), "tmpfs", 0, "size=1m"), 0);
    inChild([] {
        loadLogging();
        for (int i = 0; i < 3000; ++i) logOnNewThread(std::string(1000, 'x'));
        EXPECT_LT(count(linesOf(logFiles()), "xxx"), 3000) << "the disk was full";
        EXPECT_EQ(mount("tmpfs", kDirectory.c_str(), "tmpfs", MS_REMOUNT, "size=8m"), 0);
        EXPECT_TRUE(eventually([] {
            logOnNewThread("room again");
            return logged("room again") > 0;
        }));
    });
    EXPECT_EQ(umount2(kDirectory.c_str(), MNT_DETACH), 0);
}

TEST_F(LogFilesTest, NeitherLosesNorDoublesALineWhenTheHostForks)
{
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the sanitizers' allocators keep a lock for good that was held at a fork";
#endif
    inChild([] {
        loadLogging();
        LogWriters writers;
        for (int i = 0; i < 20; ++i) {
            inChild([] {
                KRO_LOG_INFORMATION("lost in a child");
                logOnNewThread("lost in a child");
            });
            inChild([] {
                loadLogging();
                logOnNewThread("from a child that loaded");
                deleteLogger();
            });
        }
        writers.stop();
        writers.expectAllIn(linesOf(logFiles()));
    });
    EXPECT_EQ(logged(":lost in a child"), 0) << "a child has no worker";
    EXPECT_EQ(logged(":from a child that loaded"), 20);
}

TEST_F(LogFilesTest, BeginsANewFileAtMidnight)
{
    inChild([] {
        putMidnight(kUntilMidnight);
        loadLogging();
        LogWriters writers;
        EXPECT_TRUE(eventually([] { return logFiles().size() == 2; }));
        writers.waitForMore(20);
        writers.stop();
        writers.expectAllIn(linesOf(logFiles()));
    });
    const Lines files = logFiles();
    ASSERT_EQ(files.size(), 2u);
    EXPECT_EQ(count(linesOf({files[0]}), ":Rotating log file (daily)!"), 1);
    EXPECT_EQ(linesOf({files[0]}).at(0).substr(0, 10), dateIn(files[0]));
    for (const std::string& line : linesOf({files[1]})) ASSERT_EQ(line.substr(0, 10), dateIn(files[1]));
}

TEST_F(LogFilesTest, StaysWithTheFormerFileWhenTheRenewalFails)
{
    inChild([] {
        putMidnight(kUntilMidnight);
        loadLogging();
        logOnNewThread("before midnight");  // the file is open from here on
        fs::rename("/media/log", "/media/kept");
        std::ofstream("/media/log") << "in the way";
        const auto kept = [] { return linesOf(logFiles("/media/kept/tolvan")); };
        EXPECT_TRUE(eventually([&] { return count(kept(), " Scheduling rotation") == 2; }))
            << "the next one is planned";
        EXPECT_EQ(count(kept(), ":Error:Rotation thread error: "), 1);
    });
}

TEST_F(LogFilesTest, EndsTheDailyThreadForGoodWhenItsWaitIsCutShort)
{
    inChild([] {
        loadLogging();
        Access::wakeDailyThread();
        EXPECT_TRUE(eventually(&Access::dailyThreadHasEnded));
        loadLogging();
        deleteLogger();
    });
    EXPECT_EQ(logged(":ensureDailyRotationStarted"), 2);
    EXPECT_EQ(logged(":startDailyRotationThread"), 1);
}

TEST_F(LogFilesTest, WaitsOnAfterAnEarlyWakeAndEndsAtOnceWhenItIsGuarded)
{
    inChild([] {
        setSafeguards(kSteadyMidnight);
        const auto no_sooner = std::chrono::system_clock::from_time_t(std::time(nullptr)) + kUntilMidnight;
        putMidnight(kUntilMidnight);
        loadLogging();
        for (int i = 0; i < 100; ++i) Access::wakeDailyThread();
        EXPECT_TRUE(eventually([] { return logged(":Rotating log file (daily)!") == 1; }));
        EXPECT_GE(std::chrono::system_clock::now(), no_sooner);
        deleteLogger();  // straight behind the renewal
    });
}

TEST_F(LogFilesTest, ArchivesAtTenMegabytesAndKeepsTenArchivesWithATimeStamp)
{
    inChild([] {
        loadLogging();
        for (int i = 0; i < 14; ++i) {
            logOnNewThread("begins a file");
            fs::resize_file(logFiles().at(0), 10u << 20);  // by a hole: it is archived with the next line
            logOnNewThread("ends it");
            std::this_thread::sleep_for(2ms);  // the names of archives tell milliseconds apart
        }
    });
    const Lines files = logFiles();
    EXPECT_EQ(files.size(), 11u);
    for (std::size_t i = 1; i < files.size(); ++i)
        EXPECT_TRUE(Poco::RegularExpression::match(files[i], ".*\\.log\\.\\d{17}")) << files[i];
}

}  // namespace
}  // namespace kro
