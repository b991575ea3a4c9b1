#include "Logger.h"

#include <gtest/gtest.h>

#include <climits>
#include <locale>
#include <random>

#include <Poco/PatternFormatter.h>

#include "LogFormatter.h"
#include "support/LogCapture.h"

namespace kro
{
namespace
{
using test::LogCapture;

TEST(LogMaskTest, MatchesAnyCommonBitAndNothingAtZero)
{
    setLogMask(0);
    EXPECT_FALSE(canLog(~0u));
    setLogMask(5);
    EXPECT_TRUE(canLog(4) && canLog(0xFF));
    EXPECT_FALSE(canLog(2) || canLog(0));
}

TEST(LogSiteTest, BuildsNoTextBelowTheLevelAndCarriesThePriorityAboveIt)
{
    LogCapture::instance().clear();
    int built = 0;
    const auto text = [&built] { return "line " + std::to_string(++built); };
    cachedLogger().setLevel(Poco::Message::PRIO_WARNING);
    KRO_LOG_INFORMATION(text());
    KRO_LOG_WARNING(text());
    KRO_LOG_ERROR("%s of %d", text(), 3);
    cachedLogger().setLevel(Poco::Message::PRIO_TRACE);
    EXPECT_EQ(LogCapture::instance().lines(),
              (std::vector{test::warning("line 1"), test::error("line 2 of 3")}));
}

template <typename... Arguments>
void expectSameAsPoco(const std::string& format, const Arguments&... arguments)
{
    const auto outcome = [](const auto& print) {
        try {
            return print();
        } catch (const Poco::Exception& e) {
            return e.displayText();
        }
    };
    ASSERT_EQ(outcome([&] { return detail::logText(format.c_str(), arguments...); }),
              outcome([&] { return Poco::format(format, arguments...); }))
        << format;
}

std::string randomText(std::mt19937& random, const std::vector<std::string>& pieces)
{
    std::string text;
    for (std::size_t n = random() % 8; n > 0; --n) text += pieces[random() % pieces.size()];
    return text;
}

TEST(LogTextTest, IsWhatPocoFormatPrintsForAnyDirectiveAndAnyArgumentAndUnderALocaleOfTheHost)
{
    std::mt19937 random(7);
    const int numbers[] = {0, -1, 7, 1000, -1234567, INT_MAX, INT_MIN};
    for (int i = 0; i < 20000 && !testing::Test::HasFatalFailure(); ++i) {
        const std::string format =
            randomText(random, {"%s", "%d", "%zu", "%llu", "%i",   "%u",   "%ld",   "%lu",  "%li",
                                "%%", "%",  "%x",  "%5d",  "%-5s", "%.2f", "%[1]s", "%hd",  "%ls",
                                "%c", "%b", "%v",  "%q",   " ",    "a",    "lu",    "100%", "\xC3\xA4"});
        const std::string text =
            randomText(random, {"x", "%s", "long enough to leave the string's own buffer"});
        const int number = numbers[random() % std::size(numbers)];
        const auto size = static_cast<std::size_t>(number);
        expectSameAsPoco(format, text);
        expectSameAsPoco(format, number, text);
        expectSameAsPoco(format, Poco::Any(text), number, Poco::Any(size));
        expectSameAsPoco(format, size, static_cast<long>(number), static_cast<unsigned>(number));
        expectSameAsPoco(format, text, number, size, text, 2.5, 'c', true);
        expectSameAsPoco(format, "a literal", static_cast<long long>(number), text.c_str(), number);
        expectSameAsPoco(format, static_cast<short>(number), static_cast<unsigned long long>(size), text);
    }
    struct Grouping : std::numpunct<char>
    {
        std::string do_grouping() const override { return "\3"; }
    };
    const std::locale former = std::locale::global(std::locale(std::locale(), new Grouping));
    expectSameAsPoco("%d bytes of %z", 1234567, std::size_t{1} << 40);
    std::locale::global(former);
}

TEST(LogFormatterTest, PrintsTheBytesOfPocosFormatter)
{
    std::mt19937_64 random(7);
    const char* const files[] = {nullptr, "",      "plain.cpp", "/a/b/Deep.cpp",
                                 "dir/",  "/a/..", "~",         "/x/.hidden"};
    const std::string texts[] = {"", "text", std::string(3000, 'x'), "two\nlines", "%s"};
    // Odd offsets, and summer time on now in one half of the world.
    for (const char* const zone :
         {"UTC0", "KRO-5:45:30", "KRO11:59:59", "CET-1CEST,M3.5.0,M10.5.0/3", "AEST-10AEDT,M10.1.0,M4.1.0/3"})
    {
        setenv("TZ", zone, 1);
        tzset();
        Poco::AutoPtr<LogFormatter> ours(new LogFormatter);
        Poco::AutoPtr<Poco::PatternFormatter> pocos(new Poco::PatternFormatter(LogFormatter::kPattern));
        Poco::Int64 time = 0;
        for (int i = 0; i < 4000; ++i) {
            ours->setProperty("times", i % 2000 < 1000 ? "UTC" : "local");
            pocos->setProperty("times", i % 2000 < 1000 ? "UTC" : "local");
            // Any time, or one close to the former: about the turn of a second, where the date is printed anew.
            time = i % 4 == 0 ? static_cast<Poco::Int64>(random() % 8'000'000'000) * 1'000'000
                              : time - 1 + static_cast<Poco::Int64>(random() % 3);
            Poco::Message message("some_logger", texts[random() % std::size(texts)],
                                  static_cast<Poco::Message::Priority>(1 + random() % 8),
                                  files[random() % std::size(files)], static_cast<int>(random() % 100000));
            message.setTime(time);
            std::string expected, actual;
            pocos->format(message, expected);
            ours->format(message, actual);
            ASSERT_EQ(actual, expected) << zone;
        }
    }
}

}  // namespace
}  // namespace kro
