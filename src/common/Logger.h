#ifndef KRO_LOGGER_H
#define KRO_LOGGER_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include <Poco/Any.h>
#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>
#include <Poco/Format.h>
#include <Poco/Logger.h>
#include <Poco/Message.h>
#include <Poco/Mutex.h>

#include "KroApi.h"
#include "LogFormat.h"

/// @file
/// The log: its begin and end, its mask, the macros that write a line, and the channel behind them.

namespace kro
{

/// Sets logging up: the logger, its file of today and the console, and on the first call the thread that
/// begins a new file at each local midnight. The host's first call to the library: a thread that logs earlier
/// never reaches the log file.
///
/// The file is "/media/log/tolvan//NAME-YYYY-MM-DD.log", NAME being the executable's base name in lower case;
/// the directory is made, the file comes with the first line. It is archived with a time stamp when it
/// reaches 10 MB, and ten archives of the day are kept; files of earlier days are never removed. The console
/// is standard error, in colour. Neither makes a caller wait: 100000 lines may wait for the file and 1000 for
/// the console; what comes on top is left out and counted. A line reaches the console in one write, past the
/// C and C++ streams.
///
/// A second call begins new queues and takes the file of today. In the child of a fork lines are discarded
/// until the child calls loadLogging() itself. When the process ends, with or without deleteLogger(), lines
/// that wait are still written as long as file and console take them.
/// @throws Poco::Exception if the directory can't be made, std::system_error if a worker can't be started:
///         nothing is registered then, and a later call may succeed. What an earlier call set up stays. A
///         std::system_error because the daily thread can't be started leaves the log in use, without a
///         midnight; a later call starts the thread.
KRO_API void loadLogging();

/// Ends logging: the daily thread is joined, so a renewal that is under way is waited for (and, called in the
/// moment after one, the midnight after it, unless kSteadyMidnight is set). Lines that wait
/// are still written, and threads that have logged before may go on. After it, no other function of this
/// header may be called, and no thread may log for the first time. Does nothing the second time.
KRO_API void deleteLogger() noexcept;

/// @return the name under which the process's logger is registered with POCO; empty before loadLogging().
/// @throws std::system_error if the logger's mutex can't be locked.
KRO_API std::string logName();

/// Replaces the whole process-wide mask. Its 32 bits have no meaning inside the library: a host gives them
/// one and asks with canLog(). It is a thing apart from POCO's levels. Any thread.
KRO_API void setLogMask(unsigned int mask);
KRO_API unsigned int getLogMask();  ///< the mask; 0 until setLogMask()

/// @return true if `bits` and the mask have at least one bit in common. Any thread.
KRO_API bool canLog(unsigned int bits);

/// @return the logger that the calling thread took at its first log call, and keeps for its life: one
///         thread-local read, with no lock and no look-up. It stays good across every renewal of the file,
///         and to the process's end. A thread that logs before loadLogging() keeps POCO's logger of the empty
///         name and never reaches the log file. The first call of a thread waits for a renewal that
///         is under way, and so until the lines of the day before are written.
KRO_API Poco::Logger& cachedLogger();

/// Not for hosts. A channel that never makes its callers wait: log() puts the message in a queue, and a thread
/// of the channel's own hands it to a slow channel. A message that finds the queue full is refused and counted.
///
/// Held through Poco::AutoPtr, like every channel. Letting the last reference go waits until all accepted
/// messages have been handed on, however long that takes. What the slow channel throws is dropped, and with
/// it the rest of up to 64 messages that were handed on together. open(), close() and getProperty() don't
/// reach the slow channel. Any thread may log, and set properties as far as the slow channel allows it.
class NonBlockingLoggerChannel : public Poco::Channel
{
public:
    /// @param channel    gets the messages, on the worker thread alone; if null, they are discarded.
    /// @param max_queue  most messages that wait; at 0 every message is refused.
    /// @throws std::system_error if the worker can't be started.
    NonBlockingLoggerChannel(Poco::AutoPtr<Poco::Channel> channel, std::size_t max_queue);

    /// Sets the slow channel's property at once, on the calling thread: messages that wait are written under
    /// it.
    void setProperty(const std::string& name, const std::string& value) override;

    /// @throws std::system_error if the queue's mutex can't be locked.
    void log(const Poco::Message& msg) override;
    void log(Poco::Message&& msg);  ///< the same without the copy

    /// @return how many messages were refused since construction.
    std::uint64_t droppedCount() const { return dropped_; }

    /// Waits until all that was accepted before the call has been handed on. Gives up when nothing was for
    /// `patience`, and after `limit` in all.
    /// @return false if it gave up.
    bool waitWritten(std::chrono::milliseconds patience,
                     std::chrono::milliseconds limit = std::chrono::hours(1));

protected:
    ~NonBlockingLoggerChannel() override;

private:
    friend class LogSplitter;
    friend struct LoggerTestAccess;

    // Logs to both, the file first, and wakes one worker as a rule: a sleeping file worker wakes the
    // console's before it writes.
    static void logBoth(NonBlockingLoggerChannel& file, NonBlockingLoggerChannel& console,
                        Poco::Message&& msg);

    // Takes queue_mutex_. Returns true if the worker sleeps, and the caller has to wake it. It will then wake
    // `follower` in its turn.
    template <typename AnyMessage>
    bool push(AnyMessage&& msg, NonBlockingLoggerChannel* follower = nullptr);
    bool takeBatch(std::vector<Poco::Message>& batch);  // takes queue_mutex_; false when the channel stops
    void workerThread();

    Poco::AutoPtr<Poco::Channel> channel_;  // never replaced: read without a lock
    const std::size_t max_queue_;
    std::deque<Poco::Message> queue_;  // oldest first
    std::mutex queue_mutex_;  // guards queue_ and the worker's state below; held during the last drain
    std::condition_variable queue_cv_;
    std::thread worker_;
    std::atomic<bool> running_{true};        // cleared under queue_mutex_, so that the worker can't miss it
    std::atomic<std::uint64_t> dropped_{0};  // a statistic that no decision hangs on: needs no lock
    bool sleeping_ = false;                  // the worker waits and nobody has woken it yet
    std::uint64_t accepted_ = 0;             // messages that went into queue_
    std::atomic<std::uint64_t> handed_{0};   // of these, handed on or lost with a batch; the worker adds
    // Whom the worker has to wake; outlives this channel. Set under queue_mutex_ while the worker sleeps,
    // taken back by one exchange.
    std::atomic<NonBlockingLoggerChannel*> wake_next_{nullptr};
};

/// The state of logging, one per process, made while the library loads. Not for hosts.
class LoggerImpl
{
public:
    /// @throws Poco::SystemException if the mutex of the singleton can't be locked.
    static LoggerImpl& instance();
    static void destroyInstance() noexcept;  ///< deleteLogger()
    static void endAtExit();                 ///< ends the daily thread and waits for the queues

    std::string name() const;
    void setMask(unsigned int mask) { log_mask = mask; }
    unsigned int mask() const { return log_mask; }

    void initLogger();                  ///< builds the log, or renews its branches; takes logger_mutex
    void ensureDailyRotationStarted();  ///< starts the daily thread on the first call

private:
    friend struct LoggerTestAccess;

    LoggerImpl() = default;

    void initLogFile();  // logger_mutex held
    void startDailyRotationThread();
    void runDailyRotation(std::function<void()> on_first_wait);  // on the daily thread
    bool waitAndRotate(const std::function<void()>& announce);  // takes rotation_mutex; false ends the thread
    void restAfterFailure(const std::function<void()>& announce);  // takes rotation_mutex
    /// With rotation_mutex held by `lock`. @return false if the daily thread is to end.
    bool waitForMidnight(std::unique_lock<std::mutex>& lock, std::chrono::system_clock::time_point midnight);
    static void afterForkInChild();
    static std::time_t nextMidnight(std::time_t now);

    static LoggerImpl* s_pInstance;
    static Poco::FastMutex s_mutex;  // guards the creation of the singleton

    mutable std::mutex
        logger_mutex;             // guards logger_name and log_file_path; held for the whole of initLogger()
    std::string logger_name;      // empty until logging is set up
    std::string log_file_path;    // of the current day
    std::thread rotation_thread;  // not joinable until loadLogging()
    std::atomic<bool> rotation_running{
        false};  // the daily loop goes on: stored without a lock, see deleteLogger()
    std::mutex
        rotation_mutex;  // guards the daily thread's wait; held by it during the renewal, before logger_mutex
    std::condition_variable rotation_cv;      // ends the wait early
    std::once_flag rotation_once;             // one daily thread
    std::atomic<unsigned int> log_mask{0};    // one word, stored and read whole: needs no lock
    std::atomic<bool> rotation_ended{false};  // the last act of the daily thread
};

namespace detail
{
/// Hands one line to `logger`, as its own error(), warning() and information() would: the level is tested,
/// and a logger without a channel does nothing. Into the library's own log it goes without a Poco::Message,
/// whose constructor asks the system for the process's number.
KRO_API void writeLine(Poco::Logger& logger, Poco::Message::Priority priority, const std::string& text,
                       const char* file, int line);

/// The text of a log line: one argument is the finished text, more are printed as Poco::format prints them.
inline const std::string& logText(const std::string& text)
{
    return text;
}

template <typename First, typename... Rest>
std::string logText(const char* format, const First& first, const Rest&... rest)
{
    // Poco::format prints what a Poco::Any holds, so that its type says nothing.
    if constexpr (!(std::is_same_v<First, Poco::Any> || ... || std::is_same_v<Rest, Poco::Any>)) {
        const FormatArgument arguments[] = {FormatArgument(first), FormatArgument(rest)...};
        std::string text;
        if (formatCommon(text, format, arguments, 1 + sizeof...(rest))) return text;
    }
    return Poco::format(format, first, rest...);
}
}  // namespace detail

}  // namespace kro

/// The shape of every log site: KRO_LOG_ERROR(text) or KRO_LOG_ERROR(format, arguments...). Below the
/// logger's level nothing is built; otherwise the line carries the site's file and line. `%s` wants a
/// std::string and `%d` an int: any other type prints as Poco::format has it.
#define KRO_LOG_AT(kro_priority, ...)                                                                 \
    do {                                                                                              \
        ::Poco::Logger& kro_logger = ::kro::cachedLogger();                                           \
        if (kro_logger.getLevel() >= (kro_priority))                                                  \
            ::kro::detail::writeLine(kro_logger, (kro_priority), ::kro::detail::logText(__VA_ARGS__), \
                                     __FILE__, __LINE__);                                             \
    } while (false)

/// A line at ERROR, for what an operator should see.
#define KRO_LOG_ERROR(...) KRO_LOG_AT(::Poco::Message::PRIO_ERROR, __VA_ARGS__)
/// A line at WARNING, for what has been got over.
#define KRO_LOG_WARNING(...) KRO_LOG_AT(::Poco::Message::PRIO_WARNING, __VA_ARGS__)
/// A line at INFORMATION, for the course of things.
#define KRO_LOG_INFORMATION(...) KRO_LOG_AT(::Poco::Message::PRIO_INFORMATION, __VA_ARGS__)

#endif
