#include "WebHookBasic.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <future>
#include <iostream>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <Poco/Exception.h>

#include "Config.h"
#include "support/Eventually.h"
#include "support/LogCapture.h"
#include "support/RawHttp.h"

namespace kro
{
struct WebHookBasicTestAccess
{
    static bool hasTimer(const WebHookBasic& hook) { return !hook.keepalive_timer.isNull(); }
};

namespace
{
using test::eventually;
using test::LogCapture;
using test::RawServer;
using Access = WebHookBasicTestAccess;
using Clock = std::chrono::steady_clock;

const std::string kOk = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\n{}";

void configure(bool enable, const std::string& url)
{
    configInstance()->setBool(Hook::kEnable, enable);
    configInstance()->setString(Hook::kOnServerStarted, url);
}

/// A receiver that notes when each report came.
class Receiver
{
public:
    std::size_t count() const { return times().size(); }
    std::vector<Clock::time_point> times() const
    {
        const std::lock_guard<std::mutex> lock(mutex);
        return arrivals;
    }
    std::string url() const { return server.url("/started?token=1"); }
    std::vector<std::string> requests() const { return server.requests(); }

private:
    mutable std::mutex mutex;  // guards arrivals
    std::vector<Clock::time_point> arrivals;
    const RawServer server{[this](test::Peer& peer) {
        {
            const std::lock_guard<std::mutex> lock(mutex);
            arrivals.push_back(Clock::now());
        }
        peer.send("no JSON at all\r\n\r\n");
    }};
};

// What a report reads of the configuration it keeps for the life of the process, so each scenario is a
// process.
void require(bool holds, const std::string& what)
{
    if (holds) return;
    std::cerr << "not so: " << what << std::endl;
    _exit(1);
}

void endOfScenario()
{
    ThreadPool::defaultPool().joinAll();
    _exit(0);
}

void reportsDisabled()
{
    const Receiver receiver;
    configure(false, receiver.url());
    const auto hook = WebHookBasic::createInstance();
    hook->reportServerStarted();
    hook->reportServerKeepalive();
    require(!Access::hasTimer(*hook), "no timer while the hook is disabled");
    configure(true, receiver.url());
    hook->reportServerStarted();
    hook->reportServerKeepalive();
    require(!Access::hasTimer(*hook), "what was read once stays");
    Poco::Timer unused(0, 0);
    hook->onTimer(unused);  // reads for itself, and for the first time
    require(eventually([&] { return receiver.count() == 1; }), "the tick keeps a copy of its own");
    endOfScenario();
}

void reportsToNowhere()
{
    configure(true, "");
    LogCapture::instance().clear();
    const auto hook = WebHookBasic::createInstance();
    hook->reportServerStarted();
    hook->reportServerKeepalive();
    require(Access::hasTimer(*hook), "a timer, also without a url");
    Poco::Timer unused(0, 0);
    hook->onTimer(unused);
    require(ThreadPool::defaultPool().used() == 0, "no request without a url");
    require(LogCapture::instance().lines().empty(), "no request without a url");
    endOfScenario();
}

void reportsTheStartAndBeginsAnew()
{
    const Receiver receiver;
    configure(true, receiver.url());
    configInstance()->setString(Hook::kOnServerKeepalive, "http://127.0.0.1:1/never");
    auto hook = WebHookBasic::defaultWebHook();
    hook->reportServerStarted();
    require(eventually([&] { return receiver.count() == 1; }), "the start is reported");
    hook->reportServerKeepalive();
    require(eventually([&] { return receiver.count() == 2; }), "the first tick comes at once");
    hook->reportServerKeepalive();
    require(eventually([&] { return receiver.count() == 3; }), "a second call begins with a tick at once");
    ThreadPool::defaultPool().joinAll();
    require(receiver.requests()[0].compare(0, 32, "GET /started?token=1 HTTP/1.1\r\nC") == 0 ||
                receiver.requests()[0].compare(0, 32, "GET /started?token=1 HTTP/1.1\r\nH") == 0,
            "the report is a GET of the url as it stands");
    require(receiver.requests()[1] == receiver.requests()[0], "the same url for start and tick");
    require(hook == WebHookBasic::defaultWebHook(), "one default reporter");
    hook.reset();  // exit() leaves locals as they are
    std::exit(0);  // with the timer running: the statics must go in peace
}

void ticksEveryTenSeconds()
{
    const Receiver receiver;
    configure(true, receiver.url());
    configInstance()->setInt(Hook::kAliveInterval, 1);
    auto hook = WebHookBasic::createInstance();
    hook->reportServerKeepalive();
    // Two periods of 10 s, with room for a busy machine, but not for a period of 15 s.
    require(eventually([&] { return receiver.count() == 3; }, std::chrono::seconds(28)), "three ticks");
    const auto times = receiver.times();
    for (std::size_t i = 1; i < 3; ++i)
        require(times[i] - times[i - 1] > std::chrono::seconds(8), "no sooner than the period");
    hook.reset();
    require(receiver.count() == 3, "no tick after the reporter has gone");
    endOfScenario();
}

TEST(WebHookBasicDeathTest, ReportsNothingWhileItIsDisabled)
{
    EXPECT_EXIT(reportsDisabled(), testing::ExitedWithCode(0), "");
}

TEST(WebHookBasicDeathTest, TicksWithoutARequestWhereThereIsNoUrl)
{
    EXPECT_EXIT(reportsToNowhere(), testing::ExitedWithCode(0), "");
}

TEST(WebHookBasicDeathTest, ReportsStartAndKeepaliveToOneUrlAndEndsWithTheProcess)
{
    EXPECT_EXIT(reportsTheStartAndBeginsAnew(), testing::ExitedWithCode(0), "");
}

TEST(WebHookBasicDeathTest, TicksEveryTenSecondsWhateverTheSettings)
{
    EXPECT_EXIT(ticksEveryTenSeconds(), testing::ExitedWithCode(0), "");
}

class WebHookRequestTest : public testing::Test
{
protected:
    WebHookRequestTest() { LogCapture::instance().clear(); }

    static std::string answer(const std::string& status, const std::string& body)
    {
        return "HTTP/1.1 " + status + " x\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" +
               body;
    }
    void request(const std::string& url, const HookResponseCallback& callback)
    {
        hook->doHttpRequest(url, callback);
        ThreadPool::defaultPool().joinAll();
    }

    const std::shared_ptr<WebHookBasic> hook = WebHookBasic::createInstance();
};

TEST_F(WebHookRequestTest, HandsOverTheRealStatusAndAnObjectThatIsEmptyForAnyOtherBody)
{
    using Call = std::pair<int, std::size_t>;
    const std::vector<std::pair<std::string, Call>> rows = {{answer("200", R"({"a":1,"b":2})"), {200, 2}},
                                                            {answer("404", R"({"a":1})"), {404, 1}},
                                                            {answer("200", "[1]"), {200, 0}},
                                                            {answer("500", ""), {500, 0}},
                                                            {answer("200", "null"), {200, 0}},
                                                            {answer("200", "no JSON"), {200, 0}},
                                                            {"", {400, 0}}};
    for (const auto& [reply, expected] : rows) {
        SCOPED_TRACE(reply);
        const RawServer server(reply);
        std::vector<Call> calls;
        request(server.url("/"), [&](auto status, Poco::JSON::Object& object) {
            calls.emplace_back(static_cast<int>(status), object.size());
        });
        EXPECT_EQ(calls, std::vector{expected});
        EXPECT_EQ(LogCapture::instance().lines().size(), reply.empty() ? 1u : 0u)
            << "the client's line alone";
    }
}

TEST_F(WebHookRequestTest, RunsACallbackThatThrowsAgainWithAnEmptyObject)
{
    using Call = std::pair<int, std::size_t>;
    const RawServer server(answer("200", R"({"a":1})"));
    std::vector<Call> calls;
    const auto throwing = [&](std::size_t times) {
        calls.clear();
        return [&, times](auto status, Poco::JSON::Object& object) {
            calls.emplace_back(static_cast<int>(status), object.size());
            if (calls.size() <= times) throw Poco::NotFoundException("mine");
        };
    };
    request(server.url("/"), throwing(1));
    EXPECT_EQ(calls, (std::vector<Call>{{200, 1}, {200, 0}}));
    EXPECT_TRUE(LogCapture::instance().lines().empty());
    request(server.url("/"), throwing(2));
    EXPECT_EQ(calls, (std::vector<Call>{{200, 1}, {200, 0}, {400, 0}})) << "the client's own second call";
    EXPECT_EQ(LogCapture::instance().lines().size(), 1u);
}

TEST_F(WebHookRequestTest, TakesAnEmptyCallbackForAnObjectAlone)
{
    const RawServer object(kOk);
    request(object.url("/"), {});
    EXPECT_TRUE(LogCapture::instance().lines().empty());
    const RawServer array(answer("200", "[]"));
    request(array.url("/"), {});
    EXPECT_TRUE(eventually([] { return LogCapture::instance().has(test::error("bad_function_call")); }));
}

TEST_F(WebHookRequestTest, PassesTheRefusalOfTheFullPoolToItsCaller)
{
    std::promise<void> over;
    const auto held = over.get_future().share();
    for (int i = 0; i < 32; ++i) ThreadPool::defaultPool().start([held] { held.wait(); });
    EXPECT_THROW(hook->doHttpRequest("http://127.0.0.1/", {}), Poco::NoThreadAvailableException);
    over.set_value();
    ThreadPool::defaultPool().joinAll();
}

TEST(OnceTokenTest, RunsOneFunctionAtOnceAndTheOtherAtTheEnd)
{
    std::vector<std::string> runs;
    {
        const onceToken token([&] { runs.emplace_back("begin"); }, [&] { runs.emplace_back("end"); });
        EXPECT_EQ(runs, std::vector<std::string>{"begin"});
    }
    EXPECT_EQ(runs, (std::vector<std::string>{"begin", "end"}));
    const onceToken empty({}, {});
}

}  // namespace
}  // namespace kro
