#include "WebHookBasic.h"

#include <gtest/gtest.h>

#include <Poco/Exception.h>

#include "Config.h"
#include "support/InChild.h"
#include "support/LogCapture.h"
#include "support/RawHttp.h"

namespace kro
{
struct WebHookBasicTestAccess
{
    static bool hasTimer(const WebHookBasic& hook) { return !hook.keepalive_timer.isNull(); }
    static void tick(WebHookBasic& hook)
    {
        Poco::Timer unused(0, 0);
        hook.onTimer(unused);
    }
};

namespace
{
using test::eventually;
using test::inChild;
using test::LogCapture;
using test::RawServer;
using Access = WebHookBasicTestAccess;

const std::string kNoJson = "no JSON at all\r\n\r\n";

void configure(bool enable, const std::string& url)
{
    configInstance()->setBool(Hook::kEnable, enable);
    configInstance()->setString(Hook::kOnServerStarted, url);
}

bool comes(const RawServer& server, std::size_t reports,
           std::chrono::seconds deadline = std::chrono::seconds(20))
{
    return eventually([&] { return server.requests().size() == reports; }, deadline);
}

// What a report reads of the configuration it keeps for the life of the process, so each of these is one.
TEST(WebHookReportTest, ReportsNothingWhileDisabledAndEachFunctionKeepsWhatItReadFirst)
{
    inChild([] {
        const RawServer server(kNoJson);
        const auto hook = WebHookBasic::createInstance();
        for (const bool enable : {false, true}) {
            configure(enable, server.url("/"));
            hook->reportServerStarted();
            hook->reportServerKeepalive();
            EXPECT_FALSE(Access::hasTimer(*hook));
        }
        Access::tick(*hook);  // reads for itself, and for the first time
        EXPECT_TRUE(comes(server, 1));
        ThreadPool::defaultPool().joinAll();
    });
}

TEST(WebHookReportTest, TicksWithoutARequestWhereThereIsNoUrl)
{
    inChild([] {
        configure(true, "");
        LogCapture::instance().clear();
        const auto hook = WebHookBasic::createInstance();
        hook->reportServerStarted();
        hook->reportServerKeepalive();
        EXPECT_TRUE(Access::hasTimer(*hook));
        Access::tick(*hook);
        ThreadPool::defaultPool().joinAll();
        EXPECT_TRUE(LogCapture::instance().lines().empty());
    });
}

TEST(WebHookReportTest, ReportsStartAndKeepaliveToOneUrlAndEndsWithTheProcess)
{
    inChild([] {
        static const RawServer s_server(kNoJson);
        configure(true, s_server.url("/started?token=1"));
        configInstance()->setString(Hook::kOnServerKeepalive, "http://127.0.0.1:1/never");
        const auto hook = WebHookBasic::defaultWebHook();
        hook->reportServerStarted();
        EXPECT_TRUE(comes(s_server, 1));
        hook->reportServerKeepalive();
        EXPECT_TRUE(comes(s_server, 2)) << "the first tick comes at once";
        hook->reportServerKeepalive();
        EXPECT_TRUE(comes(s_server, 3)) << "a second call begins with a tick at once";
        for (const std::string& request : s_server.requests())
            EXPECT_EQ(request.compare(0, 31, "GET /started?token=1 HTTP/1.1\r\n"), 0) << request;
        EXPECT_EQ(hook, WebHookBasic::defaultWebHook());
    });  // with the timer running: the statics must go in peace
}

TEST(WebHookReportTest, TicksEveryTenSecondsWhateverTheSettings)
{
    inChild([] {
        const RawServer server(kNoJson);
        configure(true, server.url("/"));
        configInstance()->setInt(Hook::kAliveInterval, 1);
        const auto hook = WebHookBasic::createInstance();
        const auto start = std::chrono::steady_clock::now();
        hook->reportServerKeepalive();
        // Two periods, with room for a busy machine, but not for a period of 15 s.
        EXPECT_TRUE(comes(server, 3, std::chrono::seconds(28)));
        EXPECT_GT(std::chrono::steady_clock::now() - start, std::chrono::seconds(19));
    });
}

class WebHookRequestTest : public testing::Test
{
protected:
    using Calls = std::vector<std::pair<int, std::size_t>>;  // status and members of each

    /// Makes a request that gets `reply`; its callback throws at each of the first `failures` calls.
    Calls request(const std::string& reply, std::size_t failures = 0)
    {
        const RawServer server(reply);
        Calls calls;
        LogCapture::instance().clear();
        hook->doHttpRequest(server.url("/"), [&](auto status, Poco::JSON::Object& object) {
            calls.emplace_back(static_cast<int>(status), object.size());
            if (calls.size() <= failures) throw Poco::NotFoundException("mine");
        });
        ThreadPool::defaultPool().joinAll();
        return calls;
    }

    const std::shared_ptr<WebHookBasic> hook = WebHookBasic::createInstance();
};

TEST_F(WebHookRequestTest, HandsOverTheRealStatusAndAnObjectThatIsEmptyForAnyOtherBody)
{
    const std::string head = "HTTP/1.1 200 OK\r\n\r\n";
    const std::pair<std::string, Calls> rows[] = {{head + R"({"a":1,"b":2})", {{200, 2}}},
                                                  {"HTTP/1.1 404 x\r\n\r\n{\"a\":1}", {{404, 1}}},
                                                  {"HTTP/1.1 500 x\r\nContent-Length: 0\r\n\r\n", {{500, 0}}},
                                                  {head + "[1]", {{200, 0}}},
                                                  {head + "null", {{200, 0}}},
                                                  {head + "no JSON", {{200, 0}}},
                                                  {"", {{400, 0}}}};
    for (const auto& [reply, expected] : rows) {
        EXPECT_EQ(request(reply), expected) << reply;
        EXPECT_EQ(LogCapture::instance().lines().size(), reply.empty() ? 1u : 0u)
            << "the client's line alone";
    }
    EXPECT_EQ(request(rows[0].first, 1), (Calls{{200, 2}, {200, 0}})) << "runs again with an empty object";
    EXPECT_TRUE(LogCapture::instance().lines().empty());
    EXPECT_EQ(request(rows[0].first, 2), (Calls{{200, 2}, {200, 0}, {400, 0}})) << "the client's second call";
}

TEST_F(WebHookRequestTest, TakesAnEmptyCallbackForAnObjectAlone)
{
    for (const std::string body : {"{}", "[]"}) {
        const RawServer server("HTTP/1.1 200 OK\r\n\r\n" + body);
        hook->doHttpRequest(server.url("/"), {});
        ThreadPool::defaultPool().joinAll();
        EXPECT_EQ(LogCapture::instance().has(test::error("bad_function_call")), body == "[]");
    }
}

}  // namespace
}  // namespace kro
