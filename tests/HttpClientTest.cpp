#include "HttpClient.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <set>

#include "support/Eventually.h"
#include "support/LogCapture.h"
#include "support/RawHttp.h"

namespace kro
{
namespace
{
using namespace std::chrono_literals;
using test::LogCapture;
using test::Peer;
using test::RawServer;
using Answers = std::vector<std::pair<int, std::string>>;

const std::string kOk = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok";
const Answers kGood = {{200, "ok"}};
const Answers kFailed = {{400, ""}};

class HttpClientTest : public testing::Test
{
protected:
    HttpClientTest() { LogCapture::instance().clear(); }
    /// What is thrown by the pool's tasks must be over before a test ends.
    ~HttpClientTest() override { ThreadPool::defaultPool().joinAll(); }

    /// A callback that notes every call.
    HttpResponseCallback note()
    {
        return [this](auto status, std::istream& body) {
            std::string text(std::istreambuf_iterator<char>(body), {});
            answers.add({static_cast<int>(status), std::move(text)});
        };
    }
    /// @return the answers of all requests up to now.
    Answers take()
    {
        ThreadPool::defaultPool().joinAll();
        const Answers taken = answers.all();
        answers.clear();
        return taken;
    }
    Answers get(const std::string& url)
    {
        client->doHttpRequest(url, note());
        return take();
    }
    static std::string failure(const std::string& url, const std::string& reason)
    {
        return "requst url '" + url + "' exception: " + reason;
    }
    static bool logged(const std::string& text)
    {
        return test::eventually([&] { return LogCapture::instance().has(test::error(text)); });
    }

    const std::shared_ptr<HttpClient> client = HttpClient::createInstance();
    test::Recorder<std::pair<int, std::string>> answers;
};

TEST_F(HttpClientTest, PutsEachFormOnTheWireOnAConnectionOfItsOwn)
{
    const RawServer server(kOk);
    Poco::Net::HTMLForm form;
    form.set("name", "a b&c");
    const std::string url = server.url("/p%20q?x=1&y=%26"), text = "not {json} \xc3\xa4";
    const std::string get = "GET /p%20q?x=1&y=%26 HTTP/1.1\r\nConnection: Close\r\n";
    const auto post = [](const std::string& type, const std::string& body) {
        return "POST /p%20q?x=1&y=%26 HTTP/1.1\r\nContent-Length: " + std::to_string(body.size()) +
               "\r\nContent-Type: " + type + "\r\n" + body + "\n";
    };
    const std::pair<std::function<void()>, std::string> rows[] = {
        {[&] { HttpClient::createInstance()->doHttpRequest(url, note()); }, get},  // its client goes at once
        {[&] { client->do_http_request(url, note()); }, get},
        {[&] { client->doHttpRequest(url, text, note()); }, post("application/json", text)},
        {[&] { client->doHttpRequestSync(url, text, note()); }, post("application/json", text)},
        {[&] { client->doHttpRequest(url, form, note()); },
         post("application/x-www-form-urlencoded", "name=a%20b%26c")}};
    const auto lines = [](const std::string& message) {  // POCO's order of headers is not ours to tell
        std::set<std::string> split;
        std::istringstream stream(message);
        for (std::string line; std::getline(stream, line);) split.insert(line);
        return split;
    };
    for (const auto& [request, wire] : rows) {
        request();
        EXPECT_EQ(take(), kGood);
        EXPECT_EQ(lines(server.requests().back()), lines(wire + "Host: " + server.authority() + "\r\n\r\n"));
    }
    EXPECT_EQ(server.requests().size(), std::size(rows));
    EXPECT_TRUE(LogCapture::instance().lines().empty());
}

TEST_F(HttpClientTest, TakesTheUrlAsItStandsAndPlainHttpWhateverTheScheme)
{
    const RawServer server(kOk);
    for (const auto& [rest, target] : std::vector<std::pair<std::string, std::string>>{
             {"", ""}, {"?a=b", "?a=b"}, {"/#fragment", "/"}, {"/a?b#c", "/a?b"}})
    {
        EXPECT_EQ(get("https://" + server.authority() + rest), kGood);
        EXPECT_EQ(server.requests().back().find("GET " + target + " HTTP/1.1\r\n"), 0u) << rest;
    }
}

TEST_F(HttpClientTest, PassesOnWhatTheServerSent)
{
    const std::pair<std::string, Answers> rows[] = {
        {"404 Not Found\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n1\r\nd\r\n0\r\n\r\n",
         {{404, "abcd"}}},
        {"302 Found\r\nLocation: /elsewhere\r\nContent-Length: 100\r\n\r\nbroken off",
         {{302, "broken off"}}}};
    for (const auto& [reply, expected] : rows)
        EXPECT_EQ(get(RawServer("HTTP/1.1 " + reply).url("/")), expected);
    EXPECT_TRUE(LogCapture::instance().lines().empty()) << "neither is a failed request";
}

TEST_F(HttpClientTest, MakesEveryFailureStatus400WithTheReasonInTheLogAlone)
{
    const RawServer silent(std::string{}), babbling(std::string("no HTTP at all\r\n\r\n"));
    const RawServer resetting([](Peer& peer) {
        peer.send("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\ncut");
        peer.reset();
    });
    const std::pair<std::string, std::string> rows[] = {
        {"http://127.77.66.55:20/a?b=c", "Connection refused: 127.77.66.55:20"},
        {"ftp://127.77.66.55",
         "Connection refused: 127.77.66.55:21"},  // the scheme decides on the port alone
        {"https://127.77.66.55", "Connection refused: 127.77.66.55:443"},
        {silent.url("/?q"), "No message received"},
        {babbling.url("/"), ""},
        {resetting.url("/"), "Connection reset by peer"},
        {"http://[::1", ""},
        {"http://127.0.0.1:port/", ""},
        {"no url", ""}};
    for (const auto& [url, reason] : rows) {
        SCOPED_TRACE(url);
        LogCapture::instance().clear();
        EXPECT_EQ(get(url), kFailed);
        EXPECT_THROW(client->do_http_request(url, note()), Poco::Exception);
        EXPECT_EQ(take(), Answers{}) << "the plain form leaves failures to its caller";
        const auto lines = LogCapture::instance().lines();
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_EQ(lines[0].level, Poco::Message::PRIO_ERROR);
        EXPECT_EQ(lines[0].text.find(failure(url, reason)), 0u) << lines[0];
        EXPECT_EQ(lines[0].text.find("[ERRFMT]"), std::string::npos) << lines[0];
    }
}

TEST_F(HttpClientTest, GivesUpOnAServerThatDoesNotAcceptAfter2SecondsAndOnOneThatDoesNotAnswerAfter10)
{
    // A queue of one that is full: the kernel answers no further attempt.
    Poco::Net::ServerSocket listener;
    listener.bind(Poco::Net::SocketAddress("127.0.0.1", 0));
    listener.listen(0);
    std::vector<Poco::Net::StreamSocket> queued(2);
    for (auto& socket : queued) socket.connectNB(listener.address());
    std::promise<void> over;
    const RawServer silent([held = over.get_future().share()](Peer&) { held.wait(); });
    const std::pair<std::string, std::chrono::seconds> rows[] = {
        {"http://" + listener.address().toString() + "/", 2s}, {silent.url("/"), 10s}};
    for (const auto& [url, limit] : rows) {
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(get(url), kFailed);
        EXPECT_GT(std::chrono::steady_clock::now() - start, limit - 100ms) << url;
        EXPECT_LT(std::chrono::steady_clock::now() - start, limit + 7s) << url;
        EXPECT_EQ(LogCapture::instance().countPrefix(failure(url, "Timeout")), 1u);
    }
    over.set_value();
}

TEST_F(HttpClientTest, RunsTheCallbackASecondTimeOnlyForAPocoException)
{
    const RawServer server(kOk);
    const std::string url = server.url("/");
    const Answers twice = {{200, "ok"}, {400, ""}};
    const auto throwing = [&](auto error) {
        LogCapture::instance().clear();
        return [note = note(), error](auto status, std::istream& body) {
            note(status, body);
            if (status == 200) throw error;
        };
    };
    client->doHttpRequest(url, throwing(Poco::NotFoundException("mine")));
    EXPECT_EQ(take(), twice);
    EXPECT_TRUE(logged(failure(url, "Not found: mine")));
    client->doHttpRequestSync(url, "", throwing(Poco::NotFoundException("mine")));
    EXPECT_EQ(take(), twice);
    client->doHttpRequest(url, "body", throwing(std::runtime_error("plain")));
    EXPECT_EQ(take(), kGood);
    EXPECT_TRUE(logged("plain")) << "from the pool";
    EXPECT_THROW(client->doHttpRequestSync(url, "", throwing(std::runtime_error("plain"))),
                 std::runtime_error);
    EXPECT_EQ(take(), kGood);
}

TEST_F(HttpClientTest, TakesAnEmptyCallbackForAnAnswerButNotForAFailure)
{
    const RawServer server(kOk);
    client->doHttpRequest(server.url("/"), HttpResponseCallback());
    client->doHttpRequestSync(server.url("/"), "", {});
    client->do_http_request(server.url("/"), {});
    EXPECT_EQ(take(), Answers{});
    EXPECT_TRUE(LogCapture::instance().lines().empty());
    EXPECT_THROW(client->doHttpRequestSync("http://[", "", {}), std::bad_function_call);
    client->doHttpRequest("http://[", HttpResponseCallback());
    EXPECT_TRUE(logged("bad_function_call"));
}

TEST_F(HttpClientTest, PassesTheRefusalOfTheFullPoolToItsCaller)
{
    std::promise<void> over;
    const auto held = over.get_future().share();
    for (int i = 0; i < 32; ++i) ThreadPool::defaultPool().start([held] { held.wait(); });
    Poco::Net::HTMLForm form;
    const std::string url = "http://127.0.0.1/";
    EXPECT_THROW(client->doHttpRequest(url, note()), Poco::NoThreadAvailableException);
    EXPECT_THROW(client->doHttpRequest(url, "", note()), Poco::NoThreadAvailableException);
    EXPECT_THROW(client->doHttpRequest(url, form, note()), Poco::NoThreadAvailableException);
    over.set_value();
    EXPECT_EQ(take(), Answers{});
}

}  // namespace
}  // namespace kro
