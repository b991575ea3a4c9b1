#ifndef KRO_TESTS_LOG_CAPTURE_H
#define KRO_TESTS_LOG_CAPTURE_H

#include <functional>

#include <Poco/Channel.h>
#include <Poco/Message.h>

#include "support/Recorder.h"

namespace kro::test
{
struct LogLine
{
    Poco::Message::Priority level;
    std::string text;
    bool operator==(const LogLine& other) const { return level == other.level && text == other.text; }
};

inline LogLine error(std::string text)
{
    return {Poco::Message::PRIO_ERROR, std::move(text)};
}
inline LogLine warning(std::string text)
{
    return {Poco::Message::PRIO_WARNING, std::move(text)};
}
inline LogLine information(std::string text)
{
    return {Poco::Message::PRIO_INFORMATION, std::move(text)};
}

inline const std::string& textOf(const LogLine& line)
{
    return line.text;
}

inline std::ostream& operator<<(std::ostream& out, const LogLine& line)
{
    return out << line.level << ": " << line.text;
}

/// Every line that the library logs in a test program, in order: main() hangs it under POCO's root logger
/// before any thread runs. Thread-safe.
class LogCapture : public Poco::Channel
{
public:
    static LogCapture& instance();

    void log(const Poco::Message& message) override;
    std::vector<LogLine> lines() const { return captured.all(); }
    void clear() { captured.clear(); }
    std::size_t count(const LogLine& line) const { return captured.count(line); }
    bool has(const LogLine& line) const { return count(line) > 0; }
    /// Lines of any level that begin with `prefix`.
    std::size_t countPrefix(const std::string& prefix) const { return captured.countPrefix(prefix); }

    /// Calls `hook` on the logging thread for each line, with no lock of this class held: a place to hold a
    /// thread at an exact step. An empty function ends it.
    void setHook(std::function<void(const LogLine&)> hook);

private:
    Recorder<LogLine> captured;
    std::mutex mutex;  // guards line_hook
    std::function<void(const LogLine&)> line_hook;
};
}  // namespace kro::test

#endif
