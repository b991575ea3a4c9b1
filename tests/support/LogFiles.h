#ifndef KRO_TESTS_LOG_FILES_H
#define KRO_TESTS_LOG_FILES_H

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <deque>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <Poco/FormattingChannel.h>

#include "LogSplitter.h"
#include "Logger.h"
#include "support/Eventually.h"

namespace kro::test
{
#ifdef __SANITIZE_THREAD__
constexpr bool kThreadSanitizer = true;
#else
constexpr bool kThreadSanitizer = false;
#endif
#ifdef __SANITIZE_ADDRESS__
constexpr bool kSanitizer = true;
#else
constexpr bool kSanitizer = kThreadSanitizer;
#endif

/// Processes that start and stop the log, each in its turn.
constexpr int kStarts = kSanitizer ? 100 : 1000;

/// @return the paths of the log files of `base`, archives included, oldest first.
inline std::vector<std::string> logFiles(const std::string& base,
                                         const std::string& directory = "/media/log/tolvan")
{
    std::vector<std::string> paths;
    if (!std::filesystem::exists(directory)) return paths;
    for (const auto& entry : std::filesystem::directory_iterator(directory)) {
        if (entry.path().filename().string().compare(0, base.size() + 1, base + "-") == 0)
            paths.push_back(entry.path().string());
    }
    std::sort(paths.begin(), paths.end(), [](const std::string& left, const std::string& right) {
        return left + "~" < right + "~";  // "x.log.2026..." is an archive, and older than "x.log"
    });
    return paths;
}

inline std::vector<std::string> linesOf(const std::string& path)
{
    std::vector<std::string> lines;
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) lines.push_back(line);
    return lines;
}

inline std::vector<std::string> linesOf(const std::vector<std::string>& paths)
{
    std::vector<std::string> lines;
    for (const std::string& path : paths) {
        for (std::string& line : linesOf(path)) lines.push_back(std::move(line));
    }
    return lines;
}

/// Waits until all that was logged is in the file and on the console, as far as they take it.
inline void flushLog()
{
    auto formatting = Poco::Logger::get(logName()).getChannel().cast<Poco::FormattingChannel>();
    formatting->getChannel().cast<LogSplitter>()->flush(std::chrono::seconds(1));
}

/// Threads that log "writer T line N of M", each N once and in order, M being known only at the end.
class LogWriters
{
public:
    explicit LogWriters(std::size_t writers) : written(writers) {}
    ~LogWriters() { stop(); }

    void write(int lines)
    {
        run([this, lines](std::size_t thread) {
            for (int i = 0; i < lines; ++i) writeOne(thread);
        });
        for (std::thread& thread : threads) thread.join();
        threads.clear();
    }

    void writeUntilStopped()
    {
        run([this](std::size_t thread) {
            while (!stopped) {
                writeOne(thread);
                // Slow enough for all to stay in one file, which is archived at 10 MB.
                if (written[thread] % 2 == 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        });
    }

    void waitForMore(int lines)
    {
        for (std::atomic<int>& count : written) {
            const int target = count + lines;
            eventually([&] { return count >= target; });
        }
    }

    void stop()
    {
        stopped = true;
        for (std::thread& thread : threads) thread.join();
        threads.clear();
        for (std::size_t i = 0; i < written.size() && written[i] > 0; ++i) {
            std::thread([this, i] {
                KRO_LOG_WARNING("writer %d wrote %d", static_cast<int>(i), written[i].load());
            }).join();
            written[i] = 0;
        }
    }

    /// @return what is wrong with the lines that all writers have left in `lines`; empty if none is lost,
    ///         doubled, torn or out of order.
    static std::string faultIn(const std::vector<std::string>& lines, std::size_t writers)
    {
        std::vector<int> next(writers);
        std::vector<int> total(writers, -1);
        for (const std::string& line : lines) {
            const std::size_t at = line.find(":writer ");
            if (at == std::string::npos) continue;
            int writer = -1, number = -1, length = 0;
            const char* const text = line.c_str() + at;
            if (std::sscanf(text, ":writer %d line %d of %*s%n", &writer, &number, &length) == 2 &&
                text[length] == '\0') {
                if (next.at(static_cast<std::size_t>(writer))++ != number) return "out of order: " + line;
            } else if (std::sscanf(text, ":writer %d wrote %d%n", &writer, &number, &length) == 2 &&
                       text[length] == '\0') {
                total.at(static_cast<std::size_t>(writer)) = number;
            } else {
                return "torn: " + line;
            }
        }
        return next == total ? "" : "lines are missing at the end";
    }

private:
    template <typename Body>
    void run(Body body)
    {
        for (std::size_t i = 0; i < written.size(); ++i) threads.emplace_back([body, i] { body(i); });
    }

    void writeOne(std::size_t thread)
    {
        const int number = written[thread]++;
        KRO_LOG_INFORMATION("writer %d line %d of %s", static_cast<int>(thread), number, std::string("many"));
    }

    std::deque<std::atomic<int>> written;  // lines of each thread
    std::atomic<bool> stopped{false};
    std::vector<std::thread> threads;
};
}  // namespace kro::test

#endif
