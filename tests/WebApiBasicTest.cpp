#include "WebApiBasic.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <Poco/DateTime.h>
#include <Poco/Exception.h>
#include <Poco/JSON/Array.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/ThreadPool.h>

#include "JsonText.h"
#include "support/Eventually.h"
#include "support/LogCapture.h"
#include "support/RawHttp.h"
#include "support/WithSafeguards.h"

namespace kro
{
struct WebApiBasicTestAccess
{
    static bool started(const WebApiBasic& api) { return api.http_server != nullptr; }
    static std::size_t entries(const WebApiBasic& api) { return api.api_handlers.size(); }
    static void answerBody(WebApiBasic& api, const ApiBodyHandler& handler,
                           Poco::Net::HTTPServerRequest& request, Poco::Net::HTTPServerResponse& response,
                           const Poco::JSON::Object::Ptr& body)
    {
        api.answerBody(handler, request, response, {}, body);
    }
};

namespace
{
using test::get;
using test::LogCapture;
using test::Peer;
using test::post;
using Access = WebApiBasicTestAccess;
using Object = Poco::JSON::Object;
using Request = Poco::Net::HTTPServerRequest;
using Response = Poco::Net::HTTPServerResponse;

const std::string kNotFound = R"({"code": -1, "msg": "api not found"})";
const std::string kNoBody = R"({"code": -1, "msg": "body not found or cannot be resolved to json"})";
const std::string kSuccess = R"({"code": 0, "msg": "success"})";
const std::string kChunkedPost = "POST /index/api/body HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n";
const std::string kJsonHead =
    "HTTP/1.1 200 OK\r\nConnection: Keep-Alive\r\nContent-Type: application/json\r\nTransfer-Encoding: "
    "chunked\r\n";

void text(Response& response, const std::string& body)
{
    response.sendBuffer(body.data(), body.size());
}

std::vector<std::string> sortedLines(const std::string& reply)
{
    std::vector<std::string> lines;
    for (std::size_t at = 0; at < reply.size();) {
        const auto end = std::min(reply.find("\r\n", at), reply.size());
        lines.push_back(reply.substr(at, end - at));
        at = end + 2;
    }
    lines.erase(std::remove_if(lines.begin(), lines.end(),
                               [](const auto& line) { return line.compare(0, 5, "Date:") == 0; }),
                lines.end());
    std::sort(lines.begin(), lines.end());
    return lines;
}

class WebApiBasicTest : public testing::Test
{
protected:
    WebApiBasicTest()
    {
        api.apiRegist("/index/api/echo", [](Request& request, Response& response, const ApiParams& params) {
            std::string line = request.getMethod();
            for (const auto& name : {"x", "y", ""})
                if (const auto found = params.find(name); found != params.end())
                    line += " " + found->first + "=" + found->second;
            text(response, line);
        });
        api.apiRegist("/index/api/result", [](Request&, Response&, const ApiParams& params, Object& result) {
            result.set("zeta", 1);
            result.set("alpha", static_cast<int>(params.size()));
        });
        api.apiRegist("/index/api/body",
                      [](Request&, Response&, const ApiParams&, Object& result, const Object& body) {
                          result.set("members", static_cast<int>(body.size()));
                      });
        LogCapture::instance().clear();
    }
    ~WebApiBasicTest() override
    {
        api.stop();
        Poco::ThreadPool::defaultPool()
            .joinAll();  // of POCO's threads none may be serving when the program ends
    }

    void start() { api.start(socket); }
    Poco::UInt16 port() const { return socket.address().port(); }
    std::string ask(const std::string& request)
    {
        Peer peer(port());
        peer.send(request);
        return peer.message();
    }
    void expectGoodAnswer()
    {
        EXPECT_EQ(test::bodyOf(ask(get("/index/api/result?a=1"))), R"({"alpha":1,"zeta":1})");
    }
    void expectStatus(const std::string& reply, const std::string& status)
    {
        EXPECT_EQ(reply.substr(0, 12), "HTTP/1.1 " + status) << reply.substr(0, 200);
    }
    static std::size_t errors()
    {
        const auto lines = LogCapture::instance().lines();
        return static_cast<std::size_t>(std::count_if(lines.begin(), lines.end(), [](const auto& line) {
            return line.level == Poco::Message::PRIO_ERROR;
        }));
    }

    const Poco::Net::ServerSocket socket{Poco::Net::SocketAddress("127.0.0.1", 0), 256};
    const std::shared_ptr<WebApiBasic> owner = WebApiBasic::instance();
    WebApiBasic& api = *owner;
};

TEST_F(WebApiBasicTest, MatchesTheDecodedPathByteForByte)
{
    api.apiRegist("/a/b", [](Request&, Response& response, const ApiParams&) { text(response, "found"); });
    start();
    for (const auto& path : {"/a/b", "/a%2Fb", "/%61/b", "/a/b?x#y", "http://other/a/b"})
        EXPECT_EQ(test::bodyOf(ask(get(path))), "found") << path;
    for (const auto& path : {"/a/b/", "/A/b", "/a//b", "/a", "/a/b%00", "/a/../a/b", "//a/b"})
        EXPECT_EQ(test::bodyOf(ask(get(path))), kNotFound) << path;
    EXPECT_EQ(test::bodyOf(ask(get("/index/api/echo?x=a+b&x=2&y=%2B%C3%A4&=e"))), "GET x=a b y=+\xc3\xa4 =e");
}

TEST_F(WebApiBasicTest, SendsResultsChunkedAndCannedBodiesToTheEndOfTheConnection)
{
    api.apiRegist("/ok");
    api.apiRegist("/empty", ApiResultHandler());
    api.apiRegist("/own", [](Request&, Response& response, const ApiParams&, Object&) {
        response.setChunkedTransferEncoding(false);
        text(response, "own");
    });
    start();
    EXPECT_EQ(sortedLines(ask(get("/index/api/result"))),
              sortedLines(kJsonHead + "\r\n14\r\n{\"alpha\":0,\"zeta\":1}\r\n0\r\n\r\n"));
    const std::string plain = "HTTP/1.1 200 OK\r\nConnection: Close\r\n\r\n";
    EXPECT_EQ(sortedLines(ask(get("/nothing"))), sortedLines(plain + kNotFound));
    EXPECT_EQ(sortedLines(ask(get("/ok"))), sortedLines(plain + kSuccess));
    EXPECT_EQ(sortedLines(ask(get("/empty"))),
              sortedLines(kJsonHead + "\r\n24\r\n" + kNotFound + "\r\n0\r\n\r\n"));
    EXPECT_EQ(test::bodyOf(ask(get("/own"))), "own");
    EXPECT_EQ(errors(), 0u);
}

TEST_F(WebApiBasicTest, LogsEachRegistrationOfAFunctionAndNoOther)
{
    api.apiRegist("/canned");
    api.apiRegist("/plain", ApiHandler());
    api.apiRegist("/result", ApiResultHandler());
    api.apiRegist("/body", ApiBodyHandler());
    start();
    EXPECT_EQ(LogCapture::instance().lines(), (std::vector{test::information("web api regist: /plain"),
                                                           test::information("web api regist: /result"),
                                                           test::information("web api regist: /body")}));
}

TEST_F(WebApiBasicTest, LogsWhatAHandlerThrowsAndGoesOn)
{
    struct Row
    {
        std::string path;
        std::string status;  // empty where the connection is closed without an answer
        std::string line;
        std::size_t lines;
    };
    const std::vector<Row> rows = {{"/plain?poco", "500", "Not found: mine", 1},
                                   {"/plain?std", "", "plain", 1},
                                   {"/plain?int", "", "", 0},
                                   {"/result?poco", "500", "Not found: mine", 2},
                                   {"/result?std", "", "plain", 2},
                                   {"/result?int", "", "", 0},
                                   {"/empty", "", "bad_function_call", 1}};
    const auto fail = [](const ApiParams& params) {
        if (params.count("poco") != 0) throw Poco::NotFoundException("mine");
        if (params.count("std") != 0) throw std::runtime_error("plain");
        throw 5;
    };
    api.apiRegist("/plain", [&](Request&, Response&, const ApiParams& params) { fail(params); });
    api.apiRegist("/result", [&](Request&, Response&, const ApiParams& params, Object&) { fail(params); });
    api.apiRegist("/empty", ApiHandler());
    start();
    for (const auto& row : rows) {
        SCOPED_TRACE(row.path);
        LogCapture::instance().clear();
        const std::string reply = ask(get(row.path));
        if (row.status.empty()) {
            EXPECT_EQ(reply, "");
        } else {
            expectStatus(reply, row.status);
        }
        EXPECT_EQ(errors(), row.lines);
        EXPECT_EQ(LogCapture::instance().count(test::error(row.line)), row.lines);
        expectGoodAnswer();
    }
}

TEST_F(WebApiBasicTest, MakesABodyThatIsNoObjectAnErrorThatTheHandlerNeverSees)
{
    std::string deep(10'000, '[');
    deep = "{\"a\":" + deep + std::string(10'000, ']') + "}";
    start();
    for (const auto& body : {std::string("[1,2]"), std::string(), std::string("{\"a\":"), deep}) {
        SCOPED_TRACE(body.substr(0, 20));
        LogCapture::instance().clear();
        expectStatus(ask(post("/index/api/body", body)), "500");
        EXPECT_EQ(errors(), 1u);
        expectGoodAnswer();
    }
    EXPECT_EQ(test::bodyOf(ask(post("/index/api/body", "{}"))), R"({"members":0})");
}

TEST_F(WebApiBasicTest, AnswersANullBodyAndThenFailsOnIt)
{
    std::atomic<int> calls{0};
    const ApiBodyHandler handler = [&](Request&, Response&, const ApiParams&, Object&, const Object&) {
        ++calls;
    };
    const auto with = [&](const ApiBodyHandler& function) {
        return [&, function](Request& request, Response& response, const ApiParams&) {
            Access::answerBody(api, function, request, response, nullptr);
        };
    };
    api.apiRegist("/null", ApiHandler(with(handler)));
    api.apiRegist("/null/empty", ApiHandler(with({})));
    start();
    LogCapture::instance().clear();
    EXPECT_EQ(test::bodyOf(ask(get("/null"))), kNoBody);
    EXPECT_TRUE(test::eventually([] { return errors() == 2; })) << "by the wrapper and by the dispatcher";
    EXPECT_EQ(LogCapture::instance().countPrefix("Null pointer"), 2u);
    EXPECT_EQ(calls, 0);
    EXPECT_EQ(test::bodyOf(ask(get("/null/empty"))), kNoBody) << "the second answer is POCO's to refuse";
}

TEST_F(WebApiBasicTest, WritesNothingForTheBuiltInPathsUntilTheHostReplacesThem)
{
    api.apiRegist("/", [](Request&, Response& response, const ApiParams&) { text(response, "lost"); });
    start();
    for (const auto& path : {"/", "/index/api/getApiList"}) {
        Peer peer(port());
        peer.send(get(path, "Connection: close\r\n"));
        EXPECT_EQ(peer.rest(), "") << "neither a body nor a header";
    }
    api.apiRegist("/", [](Request&, Response& response, const ApiParams&) { text(response, "mine"); });
    EXPECT_EQ(test::bodyOf(ask(get("/"))), "mine");
}

TEST_F(WebApiBasicTest, ForgetsEverythingAtStopAndStartsAgain)
{
    Poco::Net::ServerSocket other(Poco::Net::SocketAddress("127.0.0.1", 0));
    start();
    EXPECT_THROW(api.start(other), Poco::LogicException);
    expectGoodAnswer();
    api.stop();
    EXPECT_FALSE(Access::started(api));
    EXPECT_EQ(Access::entries(api), 0u);
    api.apiRegist("/never/started");
    api.stop();
    EXPECT_EQ(Access::entries(api), 0u);
    api.apiRegist("/new");
    api.start(other);
    EXPECT_EQ(Access::entries(api), 3u);
    Peer peer(other.address().port());
    peer.send(get("/new", "Connection: close\r\n"));
    EXPECT_EQ(test::bodyOf(peer.rest()), kSuccess);
}

/// What concerns threads and lifetimes: the connections are POCO's or ours.
class WebApiLifetimeTest : public WebApiBasicTest, public testing::WithParamInterface<unsigned>
{
    const test::WithSafeguards guarded{GetParam()};
};
INSTANTIATE_TEST_SUITE_P(SettledAndGuarded, WebApiLifetimeTest, testing::Values(0u, kAllSafeguards));

TEST_P(WebApiLifetimeTest, FinishesRequestsInFlightAfterStopAndFreesTheirHandlersThen)
{
    std::promise<void> over;
    std::atomic<int> arrived{0};
    auto capture = std::make_shared<std::string>("kept");
    const std::weak_ptr<std::string> watch = capture;
    api.apiRegist("/held", [&, held = over.get_future().share(), capture = std::move(capture)](
                               Request&, Response&, const ApiParams&, Object& result) {
        ++arrived;
        held.wait();
        result.set("text", *capture);
    });
    start();
    std::vector<Peer> peers;
    for (int i = 0; i < 8; ++i) {
        peers.emplace_back(port());
        peers.back().send(get("/held"));
    }
    ASSERT_TRUE(test::eventually([&] { return arrived == 8; }));
    api.stop();
    EXPECT_FALSE(watch.expired());
    over.set_value();
    for (auto& peer : peers) EXPECT_EQ(test::bodyOf(peer.message()), R"({"text":"kept"})");
    EXPECT_TRUE(test::eventually([&] { return watch.expired(); }));
    peers[0].send(get("/held"));
    EXPECT_EQ(test::bodyOf(peers[0].message()), kNotFound) << "a kept connection outlives the server";
    api.apiRegist("/late");
    peers[1].send(get("/late"));
    EXPECT_EQ(test::bodyOf(peers[1].message()), kSuccess) << "and finds what is registered meanwhile";
}

TEST_P(WebApiLifetimeTest, RegistersAndStopsUnderKeptConnectionsThatNeverPauseAndFromAHandler)
{
    std::atomic<bool> over{false};
    std::atomic<int> served{0};
    const auto again = [&] {
        api.apiRegist("/index/api/result", [capture = std::make_shared<bool>(true)](
                                               Request&, Response&, const ApiParams&, Object& result) {
            result.set("again", *capture);
        });
    };
    again();
    start();
    std::vector<std::thread> clients;
    for (int i = 0; i < 4; ++i)
        clients.emplace_back([&] {
            while (!over) {
                Peer peer(port());
                for (std::string body; !over && body != kNotFound;) {
                    if (!peer.send(get("/index/api/result"))) break;
                    body = test::bodyOf(peer.message());
                    if (body.empty()) break;  // POCO has closed the connection, while it waited for a thread
                    EXPECT_TRUE(body == R"({"again":true})" || body == kNotFound) << body;
                    ++served;
                }
            }
        });
    for (int i = 0; i < 5; ++i) {
        EXPECT_TRUE(test::eventually([&, before = served.load()] {
            again();  // over a handler that may be running
            return served > before + 20;
        }));
        api.apiRegist("/stop", [this](Request&, Response&, const ApiParams&, Object& result) {
            api.stop();
            result.set("stopped", true);
        });
        EXPECT_EQ(test::bodyOf(ask(get("/stop"))), R"({"stopped":true})");
        again();
        start();
    }
    over = true;
    for (auto& client : clients) client.join();
}

TEST_F(WebApiBasicTest, ServesKeptAndPipelinedRequestsInOrder)
{
    start();
    Peer peer(port());
    peer.send(get("/index/api/echo?x=1") + post("/index/api/body", R"({"a":1})") + kChunkedPost +
              "7\r\n{\"b\":2}\r\n0\r\n\r\n" + get("/index/api/result"));
    for (const auto& body : {"GET x=1", R"({"members":1})", R"({"members":1})", R"({"alpha":0,"zeta":1})"})
        EXPECT_EQ(test::bodyOf(peer.message()), body);
}

TEST_F(WebApiBasicTest, OutlivesRequestsThatAreBroken)
{
    start();
    const std::pair<std::string, std::size_t> rows[] = {{get("/%zz"), 0}, {get("/index/api/echo?x=%zz"), 1}};
    for (const auto& [request, lines] : rows) {
        LogCapture::instance().clear();
        expectStatus(ask(request), "500");
        EXPECT_EQ(errors(), lines) << "the path fails unlogged";
    }
    expectStatus(ask("x\r\n\r\n"), "400");
    expectGoodAnswer();
}

/// With all safeguards, over one connection that is kept unless a test says otherwise.
class GuardedWebApiTest : public WebApiBasicTest
{
protected:
    GuardedWebApiTest()
    {
        api.apiRegist("/plain", [](Request&, Response& response, const ApiParams& params) {
            if (params.count("chunks") != 0) {
                response.setChunkedTransferEncoding(true);
                response.send() << std::string(1u << 20, 'x');
            }
            if (params.count("none") != 0) {
                response.setChunkedTransferEncoding(true);  // as it is set for all who fill a result
                response.setStatusAndReason(Response::HTTP_NO_CONTENT);
                return;
            }
            if (params.count("stay") != 0) {
                response.setKeepAlive(true);
                return;
            }
            if (!params.empty()) response.set("X-Secret", "inside");
            if (params.count("int") != 0) throw 5;
            if (params.count("std") != 0) throw std::runtime_error("inside");
            if (params.count("poco") != 0 || params.count("chunks") != 0)
                throw Poco::NotFoundException("inside");
        });
        api.apiRegist("/canned");
        api.apiRegist("/none", ApiHandler());
        start();
    }

    const test::WithSafeguards guarded{kAllSafeguards};
};

const std::string kList = R"({"code":0,"data":["/","/canned","/index/api/body","/index/api/echo",)"
                          R"("/index/api/getApiList","/index/api/result","/none","/plain"],"msg":"success"})";
const std::string kBadRequest = R"({"code":-1,"msg":"bad request"})";
const std::string kInternal = R"({"code":-1,"msg":"internal error"})";
const std::string kTooLarge = R"({"code":-1,"msg":"request body too large"})";

TEST_F(GuardedWebApiTest, AnswersEveryRequestInFullAndKeepsTheConnectionWhereItKnowsTheNext)
{
    const auto with = [](const std::string& fields, const std::string& body) {
        return "POST /canned HTTP/1.1\r\n" + fields + "\r\n\r\n" + body;
    };
    const std::string chunked = "Transfer-Encoding: chunked";
    const std::string length = "Content-Length: ";
    const struct
    {
        std::string request;
        std::string status;
        std::string body;
        bool ends = false;  // the connection, whatever follows; and the client stops sending
    } rows[] = {
        {get("/index/api/result?a=1"), "200", R"({"alpha":1,"zeta":1})"},
        {get("/"), "200", kList},
        {get("/index/api/getApiList"), "200", kList},
        {get("/canned"), "200", kSuccess},
        {get("/nothing"), "200", kNotFound},
        {post("/nothing", "GET / HTTP/1.1\r\n\r\n"), "200", kNotFound},
        {get("/plain"), "200", kSuccess},
        {get("/plain?poco"), "500", kInternal},
        {get("/plain?std"), "500", kInternal},
        {get("/plain?int"), "500", kInternal},
        {get("/none"), "500", kInternal},
        {get("/%zz"), "400", kBadRequest},
        {get("/index/api/echo?x=%zz"), "400", kBadRequest},
        {post("/index/api/body", "{\"a\": ]" + std::string(100'000, ' ')), "400", kBadRequest},
        {post("/index/api/body", "null"), "400", kBadRequest},
        {post("/index/api/body", "[1]"), "400", kBadRequest},
        {"POST /index/api/body HTTP/1.1\r\n\r\n", "400", kBadRequest},
        {kChunkedPost + "2\r\n{]\r\n0\r\n\r\n", "400", kBadRequest, true},
        {kChunkedPost + "2;x=y\r\n{\"\r\n05 \r\na\":1}\r\n0\r\nA: b\r\nC: d\r\n\r\n" + get("/"), "200",
         R"({"members":1})", true},
        {with("Connection: close\r\n" + length + "4194304", std::string(4u << 20, 'x')), "200", kSuccess,
         true},
        {with("Transfer-Encoding: Chunked", "0\r\n\r\n"), "200", kSuccess, true},
        {"POST /plain?stay HTTP/1.1\r\n" + chunked + "\r\n\r\n0\r\n\r\n" + get("/"), "200", kSuccess, true},
        {with("Transfer-Encoding: gzip, chunked", "0\r\n\r\n" + get("/")), "400", kBadRequest, true},
        {with("Transfer-Encoding: identity", get("/")), "400", kBadRequest, true},
        {with(chunked + "\r\n" + chunked, "0\r\n\r\n" + get("/")), "400", kBadRequest, true},
        {with(chunked + "\r\n" + length + "5", "0\r\n\r\n" + get("/")), "400", kBadRequest, true},
        {with(length + "2\r\n" + length + "2", "ab" + get("/")), "400", kBadRequest, true},
        {with(length + "+2", "ab" + get("/")), "400", kBadRequest, true},
        {with(length + "-2", get("/")), "400", kBadRequest, true},
        {with(length, get("/")), "400", kBadRequest, true},
        {with("Content-Length : 2", "ab" + get("/")), "400", kBadRequest, true},
        {with(length + "100", "{}"), "400", kBadRequest, true},
        {with(chunked, "zz\r\n\r\n" + get("/")), "400", kBadRequest, true},
        {with(chunked, "0x2\r\n{}\r\n0\r\n\r\n"), "400", kBadRequest, true},
        {with(chunked, "2\r\n{}ab\r\n0\r\n\r\n"), "400", kBadRequest, true},
        {with(chunked, "02\n{}\r\n0\r\n\r\n"), "400", kBadRequest, true},
        {with(chunked, "ffffffffffffffff0\r\n"), "400", kBadRequest, true},
        {with(chunked, "ffffffffffffffff\r\n"), "413", kTooLarge, true},
        {with(chunked, "2\r\n{}\r\n5\r\n"), "400", kBadRequest, true},
        {with(chunked, "2\r\n{}\r\n"), "400", kBadRequest, true},
        {with(chunked, "0\r\n" + std::string(5000, 'x') + "\r\n\r\n"), "400", kBadRequest, true},
        {with(chunked, "0\r\nA: b\r\n"), "400", kBadRequest, true}};
    Peer peer(port());
    for (const auto& row : rows) {
        SCOPED_TRACE(row.request.substr(0, 100));
        ASSERT_TRUE(peer.send(row.request));
        if (row.ends) peer.finishSending();
        const std::string reply = peer.message();
        expectStatus(reply, row.status);
        EXPECT_EQ(test::bodyOf(reply), row.body);
        EXPECT_NE(reply.find("Content-Length: " + std::to_string(row.body.size())), std::string::npos);
        EXPECT_NE(reply.find("Content-Type: application/json"), std::string::npos);
        EXPECT_EQ(reply.find("inside"), std::string::npos);
        EXPECT_EQ(test::header(reply, "connection"), row.ends ? "close" : "keep-alive");
        if (!row.ends) continue;
        EXPECT_EQ(peer.rest(), "");
        peer = Peer(port());
    }
    peer.send("HEAD /index/api/result HTTP/1.1\r\n\r\n" + get("/plain?none") +
              get("/canned", "Connection: close\r\n"));
    const std::string both = peer.rest();
    EXPECT_NE(both.find("Content-Length: 20\r\n"), std::string::npos) << both;
    EXPECT_NE(both.find("\r\n\r\nHTTP/1.1 200"), std::string::npos) << "no body for HEAD: " << both;
    EXPECT_NE(both.find("\r\n\r\nHTTP/1.1 204"), std::string::npos) << both;
    EXPECT_EQ(both.find("Transfer-Encoding"), std::string::npos) << both;
    EXPECT_TRUE(LogCapture::instance().has(test::error("web api: /plain?int, unknown exception")));
}

TEST(JsonTextTest, IsWhatPocoWrites)
{
    Object inner;
    inner.set("z", Poco::Dynamic::Var())
        .set("a", 'c')
        .set("\u00e4/\"\\\n", std::string("\x01/\xc3\xa4\"\\\t", 7));
    Poco::JSON::Array list;
    list.add(1).add(inner).add("");
    Object all;
    all.set("", true).set("int", -5).set("long", -6L).set("large", 1ull << 63).set("small", Poco::Int8(7));
    all.set("double", 0.1).set("whole", 1e30).set("float", 0.5f).set("literal", "text").set("inner", inner);
    all.set("pointer", Object::Ptr(new Object(inner)))
        .set("list", list)
        .set("date", Poco::DateTime(2026, 1, 2));
    Object unsorted(Poco::JSON_PRESERVE_KEY_ORDER);
    unsorted.set("b", 1).set("a", 2);
    Object escaped(Poco::JSON_ESCAPE_UNICODE);
    escaped.set("\xc3\xa4", "\xc3\xa4");
    for (const auto& object : {Object(), inner, all, unsorted, escaped}) {
        std::ostringstream text;
        object.stringify(text, 0, -1);
        EXPECT_EQ(detail::jsonText(object), text.str());
    }
}

TEST_F(GuardedWebApiTest, EndsNoAnswerInOrderThatWasBrokenOff)
{
    for (const auto& more : {"", "Expect: no\r\n"}) {  // on our connection and on POCO's
        Peer peer(port());
        peer.send(get("/plain?chunks", more));
        const std::string reply = peer.rest();
        EXPECT_EQ(reply.find("\r\n0\r\n"), std::string::npos) << "half an answer must not look whole";
    }
    expectGoodAnswer();
}

TEST_F(GuardedWebApiTest, TakesABodyOf8MiBAndRefusesOneByteMore)
{
    const auto chunked = [](const std::string& body) {
        std::ostringstream text;
        text << kChunkedPost << std::hex << 9 << "\r\n" << body.substr(0, 9) << "\r\n" << body.size() - 9;
        return text.str() + "\r\n" + body.substr(9) + "\r\n0\r\n\r\n";
    };
    const auto body = [](std::size_t bytes) { return "{\"a\":\"" + std::string(bytes - 8, 'x') + "\"}"; };
    const std::size_t limit = 8u << 20;
    for (const auto& request : {post("/index/api/body", body(limit)), chunked(body(limit))})
        EXPECT_EQ(test::bodyOf(ask(request)), R"({"members":1})");
    const std::string unsent =
        "POST /canned HTTP/1.1\r\nContent-Length: " + std::to_string(limit + 1) + "\r\n\r\n";
    for (const auto& request : {post("/index/api/body", body(limit + 1)), chunked(body(limit + 1)),
                                unsent + get("/index/api/echo")})
    {
        Peer peer(port());
        peer.send(request);
        const std::string reply = peer.message();
        expectStatus(reply, "413");
        EXPECT_EQ(test::bodyOf(reply), kTooLarge);
        EXPECT_EQ(peer.rest(), "") << "the connection has ended, and no rest was taken for a request";
    }
    expectGoodAnswer();
}

}  // namespace
}  // namespace kro
