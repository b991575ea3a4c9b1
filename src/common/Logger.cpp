#include "Logger.h"

namespace kro
{

// Declared in this order so that the mutex exists before s_logger asks for the singleton.
Poco::FastMutex LoggerImpl::s_mutex;
LoggerImpl* LoggerImpl::s_pInstance = nullptr;

namespace
{
LoggerImpl* const s_logger = &LoggerImpl::instance();
}

LoggerImpl& LoggerImpl::instance()
{
    const Poco::FastMutex::ScopedLock lock(s_mutex);
    if (s_pInstance == nullptr) s_pInstance = new LoggerImpl;
    return *s_pInstance;
}

std::string LoggerImpl::name() const
{
    const std::lock_guard<std::mutex> lock(logger_mutex);
    return logger_name;
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

}  // namespace kro
