#include "Logger.h"

#include <poll.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <exception>
#include <memory>
#include <new>
#include <sstream>
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

#include "ExecutablePath.h"
#include "LoadOrder.h"
#include "LogFormatter.h"
#include "LogSplitter.h"
#include "Safeguards.h"

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
    const bool wake_file = file.push(static_cast<const Poco::Message&>(msg), &console);
    bool wake_console = false;
    try {
        wake_console = console.push(std::move(msg));
    } catch (...) {
        if (wake_file) file.queue_cv_.notify_one();
        throw;
    }
    if (wake_file) file.queue_cv_.notify_one();
    // If the file's worker is to wake the console's and has not begun to, it will. If it woke of its own
    // accord, it may have done so before there was anything in the queue.
    if (wake_console && (!wake_file || file.wake_next_ == nullptr)) console.queue_cv_.notify_one();
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
    ++accepted_;
    if (sleeping_) wake_next_ = follower;
    return std::exchange(sleeping_, false);
}

bool NonBlockingLoggerChannel::takeBatch(std::vector<Poco::Message>& batch)
{
    std::unique_lock<std::mutex> lock(queue_mutex_);
    while (queue_.empty() && running_) {
        sleeping_ = true;
        queue_cv_.wait(lock);
    }
    sleeping_ = false;
    const bool stops = !running_;
    for (; !stops && batch.size() < kBatch && !queue_.empty(); queue_.pop_front())
        batch.push_back(std::move(queue_.front()));
    lock.unlock();
    // Ahead of any writing, which may stall.
    NonBlockingLoggerChannel* const follower = wake_next_.exchange(nullptr);
    if (follower != nullptr) follower->queue_cv_.notify_one();
    return !stops;
}

void NonBlockingLoggerChannel::workerThread()
{
    std::vector<Poco::Message> batch;
    batch.reserve(kBatch);
    while (running_) {
        if (!takeBatch(batch)) break;
        const std::uint64_t end = handed_ + batch.size();
        try {
            for (const Poco::Message& message : batch) {
                if (channel_) channel_->log(message);
                ++handed_;
            }
        } catch (...) {
            // Settled: the messages behind the failing one are lost with it, uncounted and unreported: a disk
            // that is full or gone costs one failure a batch, not one a line.
        }
        handed_ = end;
        batch.clear();
    }
    // Settled: handed on under the lock, each on its own, so that here a failure costs only the one message.
    const std::lock_guard<std::mutex> lock(queue_mutex_);
    for (; !queue_.empty(); queue_.pop_front(), ++handed_) {
        try {
            if (channel_) channel_->log(queue_.front());
        } catch (...) {  // NOLINT(bugprone-empty-catch)
        }
    }
}

bool NonBlockingLoggerChannel::waitWritten(std::chrono::milliseconds patience,
                                           std::chrono::milliseconds limit)
{
    using Clock = std::chrono::steady_clock;
    std::uint64_t target = 0;
    {
        const std::lock_guard<std::mutex> lock(queue_mutex_);
        target = accepted_;
    }
    const auto start = Clock::now();
    std::uint64_t seen = handed_;
    for (auto progress = start; handed_ < target;) {
        const auto now = Clock::now();
        if (handed_ != seen) {
            seen = handed_;
            progress = now;
        }
        if (now - progress >= patience || now - start >= limit) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));  // only while the process ends
    }
    return true;
}

// Declared in this order so that the mutex exists before s_logger asks for the singleton.
KRO_BUILT_FIRST Poco::FastMutex LoggerImpl::s_mutex;
LoggerImpl* LoggerImpl::s_pInstance = nullptr;

namespace
{
/// A class, so that it can be built first.
struct TheLogger
{
    LoggerImpl* operator->() const { return impl; }
    LoggerImpl* const impl = &LoggerImpl::instance();
};
KRO_BUILT_FIRST const TheLogger s_logger;

/// Runs when the process ends: after the library's pools, which are built later and whose tasks may log, and
/// before POCO's statics go, since a library's objects go before those of the libraries that it needs.
struct AtExit
{
    ~AtExit() { LoggerImpl::endAtExit(); }
};
KRO_BUILT_FIRST const AtExit s_at_exit;

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
    Front() { formatter->setProperty("times", "local"); }

    Poco::AutoPtr<LogSplitter> splitter{new LogSplitter};
    Poco::AutoPtr<LogFormatter> formatter{new LogFormatter};
    Poco::AutoPtr<Poco::FormattingChannel> channel{new Poco::FormattingChannel(formatter, splitter)};
    std::atomic<Poco::Logger*> logger{nullptr};  // replaced only if the host has removed it
    const Poco::Message prototype;  // copied for each line: making one asks for the process's number
};

std::atomic<Front*> s_front{nullptr};  // stored once, with logger_mutex held

// Held while POCO's one mutex of all its loggers is taken here, and during a fork: the child could never take it
// otherwise. A leaf.
std::mutex s_registry_mutex;

/// Sees to it that `name` stands for a logger of ours, with the front's channel and level 8.
void registerLogger(Front& front, const std::string& name)
{
    // Settled: a level that the host has lowered is back at 8 after each renewal, as in a logger made anew.
    // Stored only if the host has changed it, since POCO stores level and channel in a way that races with a
    // thread that logs.
    if (Poco::Logger* const ours = front.logger) {
        if (ours->getLevel() != kEverything) ours->setLevel(kEverything);
        if (ours->getChannel().get() != front.channel.get()) ours->setChannel(front.channel);
    }
    const std::lock_guard<std::mutex> lock(s_registry_mutex);
    const Poco::Logger::Ptr registered = Poco::Logger::has(name);
    if (registered && registered.get() == front.logger) return;
    if (registered) Poco::Logger::destroy(name);  // a host's own
    Poco::Logger& made = Poco::Logger::create(name, front.channel, kEverything);
    made.duplicate();  // for good: threads keep the address
    front.logger = &made;
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

struct ConsoleText
{
    std::ostringstream text;
};

/// Standard error in colour, each line in one piece, and nothing of it by way of the C++ or C streams: these
/// belong to the host, and are flushed when the process ends, which a stalled console must not hold up.
class Console final : private ConsoleText, public Poco::ColorConsoleChannel
{
public:
    Console() : Poco::ColorConsoleChannel(text) {}

    void log(const Poco::Message& message) override
    {
        std::string line;
        {
            const std::lock_guard<std::mutex> lock(s_colour_mutex);
            Poco::ColorConsoleChannel::log(message);
            line = text.str();
            text.str(std::string());
        }
        const std::lock_guard<std::mutex> lock(s_write_mutex);
        write(line.data(), line.size());
    }

    static void beforeFork()
    {
        s_registry_mutex.lock();
        s_colour_mutex.lock();
    }
    static void afterForkInParent()
    {
        s_colour_mutex.unlock();
        s_registry_mutex.unlock();
    }
    static void afterForkInChild()
    {
        new (&s_registry_mutex) std::mutex;
        new (&s_colour_mutex) std::mutex;
        new (&s_write_mutex) std::mutex;
    }

private:
    static void write(const char* from, std::size_t length)
    {
        while (length > 0) {
            const ssize_t written = ::write(STDERR_FILENO, from, length);
            if (written >= 0) {
                from += written;
                length -= static_cast<std::size_t>(written);
            } else if (errno == EAGAIN) {
                pollfd console{STDERR_FILENO, POLLOUT, 0};  // the host has made it non-blocking
                poll(&console, 1, -1);
            } else if (errno != EINTR) {
                return;  // closed: the line is lost, and the next one is tried again
            }
        }
    }

    // As s_registry_mutex, for POCO's one mutex of all its colour consoles. Never held during a write, so that
    // a stalled console holds up no fork.
    static std::mutex s_colour_mutex;
    static std::mutex s_write_mutex;  // keeps lines whole while two consoles write, at midnight
};
std::mutex Console::s_colour_mutex;
std::mutex Console::s_write_mutex;

NonBlockingLoggerChannel* consoleBranch()
{
    constexpr std::size_t kMaxQueue = 1000;
    Poco::AutoPtr<Poco::ColorConsoleChannel> console(new Console);
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
    if (s_pInstance->rotation_thread.joinable() && safeguarded(kSteadyMidnight)) {
        // Safeguard: told under the mutex of the wait, the thread can't miss it; a renewal under way is
        // waited for.
        {
            const std::lock_guard<std::mutex> lock(s_pInstance->rotation_mutex);
            s_pInstance->rotation_running = false;
        }
        s_pInstance->rotation_cv.notify_all();
        s_pInstance->rotation_thread.join();
    } else if (s_pInstance->rotation_thread.joinable()) {
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
    // Settled: waits for a renewal under way, and so until the lines of the former queues are written.
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
        if (s_front == nullptr) {
            static const int s_at_fork = pthread_atfork(&Console::beforeFork, &Console::afterForkInParent,
                                                        &LoggerImpl::afterForkInChild);
            if (s_at_fork != 0) throw std::system_error(s_at_fork, std::generic_category(), "pthread_atfork");
            s_front = new Front;
        }
        // In this order: if POCO refuses the name, the former branches stay.
        Front& front = *s_front.load();
        registerLogger(front, logger_name);
        front.splitter->renew(file, console);
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

void LoggerImpl::restAfterFailure(const std::function<void()>& announce)
{
    constexpr std::chrono::seconds kRest(2);
    std::unique_lock<std::mutex> lock(rotation_mutex);
    announce();
    if (safeguarded(kSteadyMidnight)) {
        // Safeguard: deleteLogger() cuts the rest short.
        rotation_cv.wait_for(lock, kRest, [this] { return !rotation_running; });
        return;
    }
    lock.unlock();
    std::this_thread::sleep_for(kRest);
}

bool LoggerImpl::waitForMidnight(std::unique_lock<std::mutex>& lock,
                                 std::chrono::system_clock::time_point midnight)
{
    using Clock = std::chrono::system_clock;
    constexpr std::chrono::milliseconds kClearOfMidnight(
        200);  // of the turn of the day, for the new file's date
    if (safeguarded(kSteadyMidnight)) {
        // Safeguard: an early wake waits on, and deleteLogger() ends either wait at once.
        while (rotation_running && Clock::now() < midnight) rotation_cv.wait_until(lock, midnight);
        if (!rotation_running) return false;
        KRO_LOG_INFORMATION("Rotating log file (daily)!");
        return !rotation_cv.wait_for(lock, kClearOfMidnight, [this] { return !rotation_running; });
    }
    rotation_cv.wait_until(lock, midnight);
    // Settled: one wait and no second try. Whatever ends it early ends the thread, and the process stays with
    // its present file.
    if (Clock::now() < midnight) return false;
    if (!rotation_running) return false;
    KRO_LOG_INFORMATION("Rotating log file (daily)!");
    // Settled: the mutex is held for this pause, and for the renewal behind it.
    std::this_thread::sleep_for(kClearOfMidnight);
    return true;
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
            // Settled: a renewal that failed waits for the next midnight, and the former file stays in use.
            // An exception of any other type ends the process, since it can only be a fault in the program.
            KRO_LOG_ERROR(std::string("Rotation thread error: ") + e.what());
        }
        restAfterFailure(announce);
    }
    rotation_ended = true;
}

bool LoggerImpl::waitAndRotate(const std::function<void()>& announce)
{
    using Clock = std::chrono::system_clock;
    const std::time_t midnight = nextMidnight(Clock::to_time_t(Clock::now()));
    if (midnight == -1) {
        KRO_LOG_ERROR("mktime failed to compute next day");
        restAfterFailure(announce);
        return true;
    }
    std::tm local{};
    localtime_r(&midnight, &local);
    char deadline[64];
    std::strftime(deadline, sizeof deadline, "%Y-%m-%d %H:%M:%S", &local);
    KRO_LOG_INFORMATION(" Scheduling rotation at: %s (local time)", std::string(deadline));

    std::unique_lock<std::mutex> lock(rotation_mutex);
    announce();
    if (!waitForMidnight(lock, Clock::from_time_t(midnight))) return false;
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
    if (Front* const front = s_front.load(std::memory_order_acquire)) front->splitter->finish(kPatience);
}

/// A fork leaves the child one thread, and locks and condition variables as the others held them. They can't
/// be destroyed (that waits for threads which don't exist), so new ones are made over them.
void LoggerImpl::afterForkInChild()
{
    Console::afterForkInChild();
    if (Front* const front = s_front.load(std::memory_order_acquire)) front->splitter->abandon();
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
    // Settled: never looked up again, so that a log site costs no lock: a thread that logs before
    // loadLogging() keeps the logger of the empty name for its life.
    thread_local Poco::Logger* cached = nullptr;
    if (cached == nullptr) {
        const std::string name = logName();
        const std::lock_guard<std::mutex> lock(s_registry_mutex);
        cached = &Poco::Logger::get(name);
    }
    return *cached;
}

void detail::writeLine(Poco::Logger& logger, Poco::Message::Priority priority, const std::string& text,
                       const char* file, int line)
{
    Front* const front = s_front.load(std::memory_order_acquire);
    if (front == nullptr || &logger != front->logger || !front->formatter->rendersDirectly() ||
        logger.getChannel().get() != front->channel.get())
    {
        logger.log(Poco::Message(logger.name(), text, priority, file, line));
        return;
    }
    if (logger.getLevel() < priority || !front->splitter->isOpen()) return;
    std::string rendered;
    front->formatter->render(rendered, Poco::Timestamp(), logger.name(), file, line, priority, text);
    Poco::Message message(front->prototype, rendered);
    message.setPriority(priority);  // decides the colour; the rest is in the text
    front->splitter->log(std::move(message));
}

}  // namespace kro
