#include "LogFormatter.h"

#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include <Poco/DateTime.h>
#include <Poco/Path.h>
#include <Poco/Timezone.h>

namespace kro
{
namespace
{
constexpr std::int64_t kMicroseconds = 1'000'000;  // in a second

/// The date and time of the second that this thread printed last. A zone switches at a full second, so a line
/// can't be printed with the offset of before the switch. With no destructor it serves until the thread's
/// very end, when other thread-local objects may still log.
struct PrintedSecond
{
    std::int64_t second = -1;  // since 1970, UTC
    std::size_t length = 0;
    char text[40] = {};
};
thread_local PrintedSecond t_printed;

void print(PrintedSecond& printed, std::int64_t second)
{
    // POCO's own arithmetic, with its "one hour when summer time is on now", so that the bytes stay POCO's.
    const std::int64_t offset = std::int64_t{Poco::Timezone::utcOffset()} + Poco::Timezone::dst();
    const Poco::DateTime local{Poco::Timestamp((second + offset) * kMicroseconds)};
    printed.length = static_cast<std::size_t>(
        std::snprintf(printed.text, sizeof printed.text, "%04d-%02d-%02d %02d:%02d:%02d.", local.year(),
                      local.month(), local.day(), local.hour(), local.minute(), local.second()));
    printed.second = second;
}

void appendFileName(std::string& line, const char* file)
{
    if (file == nullptr) return;
    const char* const slash = std::strrchr(file, '/');
    const char* const name = slash == nullptr ? file : slash + 1;
    if (*name == '.' || *name == '~') {
        line += Poco::Path(file).getFileName();  // names that mean something to Poco::Path
    } else {
        line += name;
    }
}
}  // namespace

void LogFormatter::setProperty(const std::string& name, const std::string& value)
{
    PatternFormatter::setProperty(name, value);
    direct = getProperty(PROP_PATTERN) == kPattern && getProperty(PROP_TIMES) == "local";
}

void LogFormatter::format(const Poco::Message& message, std::string& text)
{
    if (!direct || message.getTime().epochMicroseconds() < 0) {
        PatternFormatter::format(message, text);
        return;
    }
    render(text, message.getTime(), message.getSource(), message.getSourceFile(), message.getSourceLine(),
           message.getPriority(), message.getText());
}

void LogFormatter::render(std::string& line, const Poco::Timestamp& time, const std::string& source,
                          const char* file, int source_line, Poco::Message::Priority priority,
                          const std::string& text)
{
    const std::int64_t microseconds = time.epochMicroseconds();
    PrintedSecond& printed = t_printed;
    if (printed.second != microseconds / kMicroseconds) print(printed, microseconds / kMicroseconds);
    const auto milliseconds = static_cast<unsigned>(microseconds % kMicroseconds / 1000);
    const std::string& priority_name = getPriorityName(priority);

    constexpr std::size_t kRest = 64;  // milliseconds, colons, line number, and a usual file's name
    line.reserve(line.size() + printed.length + source.size() + priority_name.size() + text.size() + kRest);
    line.append(printed.text, printed.length);
    line += static_cast<char>('0' + milliseconds / 100);
    line += static_cast<char>('0' + milliseconds / 10 % 10);
    line += static_cast<char>('0' + milliseconds % 10);
    line += ' ';
    line += source;
    line += ':';
    appendFileName(line, file);
    line += ':';
    char digits[16];
    line.append(digits, std::to_chars(digits, digits + sizeof digits, source_line).ptr);
    line += ':';
    line += priority_name;
    line += ':';
    line += text;
}

}  // namespace kro
