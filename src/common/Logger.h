#ifndef KRO_LOGGER_H
#define KRO_LOGGER_H

#include <atomic>
#include <mutex>
#include <string>
#include <utility>

#include <Poco/Format.h>
#include <Poco/Logger.h>
#include <Poco/Mutex.h>

#include "KroApi.h"

namespace kro
{

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
///         thread-local read, with no lock and no look-up. A thread that logs before loadLogging() keeps
///         POCO's logger of the empty name and never reaches the log file.
KRO_API Poco::Logger& cachedLogger();

/// The state of logging, one per process, made while the library loads. Not for hosts.
class LoggerImpl
{
public:
    /// @throws Poco::SystemException if the mutex of the singleton can't be locked.
    static LoggerImpl& instance();

    std::string name() const;
    void setMask(unsigned int mask) { log_mask = mask; }
    unsigned int mask() const { return log_mask; }

private:
    LoggerImpl() = default;

    static LoggerImpl* s_pInstance;
    static Poco::FastMutex s_mutex;  // guards the creation of the singleton

    mutable std::mutex logger_mutex;        // guards logger_name
    std::string logger_name;                // empty until logging is set up
    std::atomic<unsigned int> log_mask{0};  // one word, stored and read whole: needs no lock
};

namespace detail
{
/// The text of a log line: one argument is the finished text, more go through Poco::format as they stand.
inline std::string logText(std::string text)
{
    return text;
}

template <typename First, typename... Rest>
std::string logText(const char* format, First&& first, Rest&&... rest)
{
    return Poco::format(std::string(format), std::forward<First>(first), std::forward<Rest>(rest)...);
}
}  // namespace detail

}  // namespace kro

/// The shape of every log site: KRO_LOG_ERROR(text) or KRO_LOG_ERROR(format, arguments...). Below the
/// logger's level nothing is built; otherwise the line carries the site's file and line. `%s` wants a
/// std::string and `%d` an int: any other type prints as Poco::format has it.
#define KRO_LOG_AT(kro_priority, kro_call, ...)                                           \
    do {                                                                                  \
        ::Poco::Logger& kro_logger = ::kro::cachedLogger();                               \
        if (kro_logger.getLevel() >= (kro_priority))                                      \
            kro_logger.kro_call(::kro::detail::logText(__VA_ARGS__), __FILE__, __LINE__); \
    } while (false)

#define KRO_LOG_ERROR(...) KRO_LOG_AT(::Poco::Message::PRIO_ERROR, error, __VA_ARGS__)
#define KRO_LOG_WARNING(...) KRO_LOG_AT(::Poco::Message::PRIO_WARNING, warning, __VA_ARGS__)
#define KRO_LOG_INFORMATION(...) KRO_LOG_AT(::Poco::Message::PRIO_INFORMATION, information, __VA_ARGS__)

#endif
