#include "Logger.h"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <exception>
#include <iostream>
#include <memory>
#include <new>
#include <system_error>
#include <vector>

#include <Poco/ConsoleChannel.h>
#include <Poco/DateTimeFormatter.h>
#include <Poco/File.h>
#include <Poco/FileChannel.h>
#include <Poco/FormattingChannel.h>
#include <Poco/LocalDateTime.h>
#include <Poco/Path.h>
#include <Poco/String.h>
#include <Poco/Thread.h>

#include "ExecutablePath.h"
#include "LogFormatter.h"
#include "LogSplitter.h"

namespace kro
{

namespace
{
constexpr std::size_t kBatch = 64;  // messages that a worker takes with one lock
}

NonBlockingLoggerChannel::NonBlockingLoggerChannel(Poco::AutoPtr<Poco::Channel> channel,
                                                   std::size_t max_queue)
    : channel_(std::move(channel)), max_queue_(max_queue)
{
    worker_ = std::thread(&NonBlockingLoggerChannel::workerThread, this);
}

NonBlockingLoggerChannel::~NonBlockingLoggerChannel()
{
    {
        const std::lock_guard<std::mutex> lock(queue_mutex_);
        running_ = false;
    }
    queue_cv_.notify_all();
    if (worker_.joinable()) worker_.join();  // Settled: waits for the whole queue, for a log that has no gaps
}

void NonBlockingLoggerChannel::setProperty(const std::string& name, const std::string& value)
{
    // Settled: at once and past the queue, so messages that wait are written under the new setting.
    if (channel_) channel_->setProperty(name, value);
}

void NonBlockingLoggerChannel::log(const Poco::Message& msg)
{
    if (push(msg)) queue_cv_.notify_one();
}

void NonBlockingLoggerChannel::log(Poco::Message&& msg)
{
    if (push(std::move(msg))) queue_cv_.notify_one();
}

void NonBlockingLoggerChannel::logBoth(NonBlockingLoggerChannel& file, NonBlockingLoggerChannel& console,
                                       Poco::Message&& msg)
{
    const bool wake_console = console.push(static_cast<const Poco::Message&>(msg));
    if (file.push(std::move(msg), wake_console ? &console : nullptr)) {
        file.queue_cv_.notify_one();
    } else if (wake_console) {
        console.queue_cv_.notify_one();
    }
}

template <typename AnyMessage>
bool NonBlockingLoggerChannel::push(AnyMessage&& msg, NonBlockingLoggerChannel* follower)
{
    const std::lock_guard<std::mutex> lock(queue_mutex_);
    if (queue_.size() >= max_queue_) {
        ++dropped_;  // Settled: counted, not logged. What is queued stays, the new message goes.
        return false;
    }
    queue_.push_back(std::forward<AnyMessage>(msg));
    if (sleeping_) wake_next_ = follower;
    return std::exchange(sleeping_, false);
}

bool NonBlockingLoggerChannel::takeBatch(std::vector<Poco::Message>& batch)
{
    std::unique_lock<std::mutex> lock(queue_mutex_);
    batch_in_hand_ = false;
    while (queue_.empty() && running_) {
        sleeping_ = true;
        queue_cv_.wait(lock);
    }
    sleeping_ = false;
    if (!running_) return false;
    for (; batch.size() < kBatch && !queue_.empty(); queue_.pop_front())
        batch.push_back(std::move(queue_.front()));
    batch_in_hand_ = true;
    NonBlockingLoggerChannel* const follower = std::exchange(wake_next_, nullptr);
    lock.unlock();
    if (follower != nullptr) follower->queue_cv_.notify_one();  // ahead of any writing, which may stall
    return true;
}

void NonBlockingLoggerChannel::workerThread()
{
    std::vector<Poco::Message> batch;
    batch.reserve(kBatch);
    while (running_) {
        if (!takeBatch(batch)) break;
        try {
            for (const Poco::Message& message : batch) {
                ++handed_;
                if (channel_) channel_->log(message);
            }
        } catch (...) {
            // Settled: the messages behind the failing one are lost with it, uncounted and unreported: a disk
            // that is full or gone costs one failure a batch, not one a line.
        }
        batch.clear();
    }
    // Settled: handed on under the lock, each on its own, so that here a failure costs only the one message.
    const std::lock_guard<std::mutex> lock(queue_mutex_);
    batch_in_hand_ = false;
    for (; !queue_.empty(); queue_.pop_front()) {
        ++handed_;
        try {
            if (channel_) channel_->log(queue_.front());
        } catch (...) {  // NOLINT(bugprone-empty-catch)
        }
    }
}

bool NonBlockingLoggerChannel::waitWritten(std::chrono::milliseconds patience)
{
    using Clock = std::chrono::steady_clock;
    std::uint64_t seen = handed_;
    for (auto give_up = Clock::now() + patience;;) {
        {
            const std::lock_guard<std::mutex> lock(queue_mutex_);
            if (queue_.empty() && !batch_in_hand_) return true;
        }
        if (handed_ != seen) {
            seen = handed_;
            give_up = Clock::now() + patience;
        } else if (Clock::now() >= give_up) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));  // only while the process ends
    }
}

// Declared in this order so that the mutex exists before s_logger asks for the singleton.
Poco::FastMutex LoggerImpl::s_mutex;
LoggerImpl* LoggerImpl::s_pInstance = nullptr;

namespace
{
LoggerImpl* const s_logger = &LoggerImpl::instance();

/// Runs when the process ends, before POCO's statics go: a library's objects go before those of the libraries
/// that it needs.
const struct AtExit
{
    ~AtExit() { LoggerImpl::endAtExit(); }
} s_at_exit;

constexpr int kEverything = Poco::Message::PRIO_TRACE;

/// What stays from the first loadLogging() to the end of the process, and is then left to the system: the
/// registered logger and the channels down to the splitter, whose branches are what midnight replaces.
///
/// Threads keep the logger's address, and nothing could tell them of a new one. So this very object stays
/// registered across midnight, with its name and address: there is no moment when POCO's registry lacks the
/// name and makes up a logger for a thread that asks, and no line reads anything that a renewal writes but
/// the splitter's one atomic pointer. However many renewals there are, none leaves anything behind.
struct Front
{
    explicit Front(const std::string& name) : prototype(name, std::string(), Poco::Message::PRIO_INFORMATION)
    {
        formatter->setProperty("times", "local");
    }

    Poco::AutoPtr<LogSplitter> splitter{new LogSplitter};
    Poco::AutoPtr<LogFormatter> formatter{new LogFormatter};
    Poco::AutoPtr<Poco::FormattingChannel> channel{new Poco::FormattingChannel(formatter, splitter)};
    Poco::Logger::Ptr logger;  // set before the front is published
    Poco::Message prototype;   // has the source and the process's number; changed in the child of a fork
};

Front* s_made_front = nullptr;         // from the first initLogger() on; guarded by logger_mutex
std::atomic<Front*> s_front{nullptr};  // the same, with its logger; stored once

/// Gives access to POCO's registry, which is open to derived classes only.
struct Registry : Poco::Logger
{
    static void put(const Poco::Logger::Ptr& logger) { add(logger); }
};

/// Sees to it that `name` stands for the front's logger, with its channel and level.
void registerLogger(Front& front, const std::string& name)
{
    const Poco::Logger::Ptr registered = Poco::Logger::has(name);
    if (!front.logger || registered != front.logger) {
        if (registered) Poco::Logger::destroy(name);  // a host's own
        if (front.logger) {
            Registry::put(front.logger);  // the host had removed it
        } else {
            front.logger.assign(&Poco::Logger::create(name, front.channel, kEverything), true);
        }
    }
    // Settled: a level that the host has lowered is back at 8 after each renewal, as in a logger made anew.
    // Stored only if the host has changed it, since POCO stores level and channel in a way that races with a
    // thread that logs.
    if (front.logger->getLevel() != kEverything) front.logger->setLevel(kEverything);
    if (front.logger->getChannel().get() != front.channel.get()) front.logger->setChannel(front.channel);
    s_front.store(&front, std::memory_order_release);
}

NonBlockingLoggerChannel* fileBranch(const std::string& path)
{
    constexpr std::size_t kMaxQueue = 100000;
    Poco::AutoPtr<Poco::FileChannel> file(new Poco::FileChannel(path));
    file->setProperty("times", "local");
    file->setProperty("rotation", "10M");
    file->setProperty("archive", "timestamp");
    file->setProperty("purgeCount", "10");
    return new NonBlockingLoggerChannel(file, kMaxQueue);
}

NonBlockingLoggerChannel* consoleBranch()
{
    constexpr std::size_t kMaxQueue = 1000;
    Poco::AutoPtr<Poco::ColorConsoleChannel> console(new Poco::ColorConsoleChannel);
    console->setProperty("enableColors", "true");
    console->setProperty("informationColor", "cyan");
    console->setProperty("noticeColor", "cyan");
    return new NonBlockingLoggerChannel(console, kMaxQueue);
}
}  // namespace

LoggerImpl& LoggerImpl::instance()
{
    const Poco::FastMutex::ScopedLock lock(s_mutex);
    if (s_pInstance == nullptr) s_pInstance = new LoggerImpl;
    return *s_pInstance;
}

void LoggerImpl::destroyInstance() noexcept
{
    if (s_pInstance == nullptr) return;
    KRO_LOG_INFORMATION("Log destroying");
    if (s_pInstance->rotation_thread.joinable()) {
        // Settled: the mutex of the wait is not taken. A thread that has tested rotation_running and not
        // begun its wait misses the notification, and the join lasts until midnight.
        // startDailyRotationThread() has closed that gap for the first wait; it opens again for the moment
        // after each renewal.
        s_pInstance->rotation_running = false;
        s_pInstance->rotation_cv.notify_all();
        s_pInstance->rotation_thread.join();
    }
    KRO_LOG_INFORMATION("Log destroyed");
    // Settled: logger, channels and workers stay, and so does s_logger. Threads that have logged may go on.
    delete s_pInstance;
    s_pInstance = nullptr;
}

std::string LoggerImpl::name() const
{
    const std::lock_guard<std::mutex> lock(logger_mutex);
    return logger_name;
}

void LoggerImpl::initLogFile()
{
    // Worked out once: an executable that is replaced while it runs reads as "NAME (deleted)".
    static const std::string s_base = Poco::toLower(Poco::Path(detail::executablePath()).getBaseName());
    Poco::Path directory("/media/log/");
    directory.pushDirectory("tolvan");
    Poco::File(directory).createDirectories();
    logger_name = s_base + "_logger";
    const std::string date = Poco::DateTimeFormatter::format(Poco::LocalDateTime(), "%Y-%m-%d");
    // Settled: the directory ends in a slash of its own, so that two stand in a row.
    log_file_path = directory.toString() + "/" + s_base + "-" + date + ".log";
}

void LoggerImpl::initLogger()
{
    const std::lock_guard<std::mutex> lock(logger_mutex);
    std::string former_name = logger_name;
    std::string former_path = log_file_path;
    try {
        initLogFile();
        const LogSplitter::Branch file(fileBranch(log_file_path));
        const LogSplitter::Branch console(consoleBranch());
        if (s_made_front == nullptr) {
            // Only now that nothing else is left to fail before the name is taken.
            static const int s_at_fork = pthread_atfork(nullptr, nullptr, &LoggerImpl::afterForkInChild);
            if (s_at_fork != 0) throw std::system_error(s_at_fork, std::generic_category(), "pthread_atfork");
            s_made_front = new Front(logger_name);
        }
        s_made_front->splitter->renew(file, console);
        registerLogger(*s_made_front, logger_name);
    } catch (...) {
        logger_name.swap(former_name);
        log_file_path.swap(former_path);
        throw;
    }
}

void LoggerImpl::ensureDailyRotationStarted()
{
    std::call_once(rotation_once, [this] {
        KRO_LOG_INFORMATION("startDailyRotationThread");
        startDailyRotationThread();
    });
}

void LoggerImpl::startDailyRotationThread()
{
    // Returns when the thread waits for midnight, so that a deleteLogger() straight behind is not missed.
    std::condition_variable first_wait;
    bool is_waiting = false;
    std::unique_lock<std::mutex> lock(rotation_mutex);
    rotation_thread = std::thread([&] {
        runDailyRotation([&first_wait, &is_waiting] {
            is_waiting = true;
            first_wait.notify_all();
        });
    });
    first_wait.wait(lock, [&] { return is_waiting; });
}

void LoggerImpl::runDailyRotation(std::function<void()> on_first_wait)
{
    const auto announce = [&on_first_wait] {
        if (on_first_wait) std::exchange(on_first_wait, nullptr)();
    };
    rotation_running = true;
    while (rotation_running) {
        try {
            if (!waitAndRotate(announce)) break;
            continue;
        } catch (const std::exception& e) {
            KRO_LOG_ERROR(std::string("Rotation thread error: ") + e.what());
        }
        {
            const std::lock_guard<std::mutex> lock(rotation_mutex);
            announce();
        }
        std::this_thread::sleep_for(std::chrono::seconds(2));
    }
    rotation_ended = true;
}

bool LoggerImpl::waitAndRotate(const std::function<void()>& announce)
{
    using Clock = std::chrono::system_clock;
    const std::time_t midnight = nextMidnight(Clock::to_time_t(Clock::now()));
    if (midnight == -1) {
        KRO_LOG_ERROR("mktime failed to compute next day");
        {
            const std::lock_guard<std::mutex> lock(rotation_mutex);
            announce();
        }
        std::this_thread::sleep_for(std::chrono::seconds(2));
        return true;
    }
    std::tm local{};
    localtime_r(&midnight, &local);
    char deadline[64];
    std::strftime(deadline, sizeof deadline, "%Y-%m-%d %H:%M:%S", &local);
    KRO_LOG_INFORMATION(" Scheduling rotation at: %s (local time)", std::string(deadline));

    std::unique_lock<std::mutex> lock(rotation_mutex);
    announce();
    rotation_cv.wait_until(lock, Clock::from_time_t(midnight));
    // Settled: one wait and no second try. Whatever ends it early ends the thread, and the process stays with
    // its present file.
    if (Clock::now() < Clock::from_time_t(midnight)) return false;
    if (!rotation_running) return false;
    KRO_LOG_INFORMATION("Rotating log file (daily)!");
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    initLogger();
    return true;
}

std::time_t LoggerImpl::nextMidnight(std::time_t now)
{
    std::tm today{};
    localtime_r(&now, &today);
    std::tm tomorrow{};
    tomorrow.tm_year = today.tm_year;
    tomorrow.tm_mon = today.tm_mon;
    tomorrow.tm_mday = today.tm_mday + 1;  // mktime carries the ends of months and years
    tomorrow.tm_isdst = -1;
    return std::mktime(&tomorrow);
}

void LoggerImpl::endAtExit()
{
    constexpr std::chrono::milliseconds kPatience(
        1000);  // for what makes no progress: a console that nobody reads
    if (s_pInstance != nullptr && s_pInstance->rotation_thread.joinable()) {
        // The thread must not log while POCO's statics go. Told again and again, it can't miss it; if it is
        // in a renewal that hangs in a stalled console, it does no harm.
        s_pInstance->rotation_running = false;
        for (auto waited = kPatience * 0; waited < kPatience && !s_pInstance->rotation_ended; ++waited) {
            s_pInstance->rotation_cv.notify_all();
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        if (s_pInstance->rotation_ended) s_pInstance->rotation_thread.join();
    }
    Front* const front = s_front.load(std::memory_order_acquire);
    if (front == nullptr || front->splitter->flush(kPatience)) return;
    // A worker hangs in a write to standard error. The C++ library would flush these next, and wait for it.
    std::cerr.rdbuf(nullptr);
    std::clog.rdbuf(nullptr);
    std::wcerr.rdbuf(nullptr);
    std::wclog.rdbuf(nullptr);
}

/// A fork leaves the child one thread, and locks and condition variables as the others held them. They can't
/// be destroyed (that waits for threads which don't exist), so new ones are made over them.
void LoggerImpl::afterForkInChild()
{
    if (Front* const front = s_front.load(std::memory_order_acquire)) {
        front->splitter->abandon();
        front->prototype.setPid(getpid());
    }
    if (s_pInstance == nullptr) return;
    new (&s_pInstance->logger_mutex) std::mutex;
    new (&s_pInstance->rotation_mutex) std::mutex;
    new (&s_pInstance->rotation_cv) std::condition_variable;
    new (&s_pInstance->rotation_once) std::once_flag;
    new (&s_pInstance->rotation_thread) std::thread;
    s_pInstance->rotation_running = false;
    s_pInstance->rotation_ended = false;
}

void loadLogging()
{
    s_logger->initLogger();
    KRO_LOG_INFORMATION("Log initialized");
    KRO_LOG_INFORMATION("ensureDailyRotationStarted");
    s_logger->ensureDailyRotationStarted();
}

void deleteLogger() noexcept
{
    LoggerImpl::destroyInstance();
}

std::string logName()
{
    return s_logger->name();
}

void setLogMask(unsigned int mask)
{
    s_logger->setMask(mask);
}

unsigned int getLogMask()
{
    return s_logger->mask();
}

bool canLog(unsigned int bits)
{
    return (s_logger->mask() & bits) != 0;
}

Poco::Logger& cachedLogger()
{
    thread_local Poco::Logger* cached = nullptr;
    if (cached == nullptr) cached = &Poco::Logger::get(logName());
    return *cached;
}

void detail::writeLine(Poco::Logger& logger, Poco::Message::Priority priority, const std::string& text,
                       const char* file, int line)
{
    Front* const front = s_front.load(std::memory_order_acquire);
    if (front == nullptr || &logger != front->logger.get() || !front->formatter->rendersDirectly() ||
        logger.getChannel().get() != front->channel.get())
    {
        logger.log(Poco::Message(logger.name(), text, priority, file, line));
        return;
    }
    if (logger.getLevel() < priority) return;
    const Poco::Timestamp now;
    std::string rendered;
    front->formatter->render(rendered, now, logger.name(), file, line, priority, text);
    Poco::Message message(front->prototype, rendered);
    message.setPriority(priority);
    message.setTime(now);
    message.setSourceFile(file);
    message.setSourceLine(line);
    if (const Poco::Thread* const thread = Poco::Thread::current()) {
        message.setTid(thread->id());
        message.setThread(thread->name());
    }
    front->splitter->log(std::move(message));
}

}  // namespace kro
