#include "HttpClient.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <future>
#include <istream>
#include <iterator>
#include <memory>
#include <mutex>
#include <numeric>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <Poco/Exception.h>
#include <Poco/Net/NetException.h>

#include "support/Eventually.h"
#include "support/LogCapture.h"
#include "support/RawHttp.h"

namespace kro
{
namespace
{
using test::LogCapture;
using test::Peer;
using test::RawServer;
using Status = Poco::Net::HTTPResponse::HTTPStatus;

struct Answer
{
    int status;
    std::string body;
    bool operator==(const Answer& other) const { return status == other.status && body == other.body; }
};

std::ostream& operator<<(std::ostream& out, const Answer& answer)
{
    return out << answer.status << " '" << answer.body.substr(0, 80) << "'";
}

const std::string kOk = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok";

/// The request with its headers sorted: POCO's order of them is not ours to tell.
std::string withSortedHeaders(const std::string& request)
{
    const auto first_end = request.find("\r\n") + 2;
    const auto head_end = request.find("\r\n\r\n") + 2;
    std::set<std::string> headers;
    for (std::size_t at = first_end; at < head_end; at = request.find("\r\n", at) + 2)
        headers.insert(request.substr(at, request.find("\r\n", at) + 2 - at));
    return std::accumulate(headers.begin(), headers.end(), request.substr(0, first_end)) +
           request.substr(head_end);
}

class HttpClientTest : public testing::Test
{
protected:
    HttpClientTest() { LogCapture::instance().clear(); }
    /// What is thrown by the pool's tasks must be over before a test ends.
    ~HttpClientTest() override { ThreadPool::defaultPool().joinAll(); }

    /// A callback that notes every call.
    HttpResponseCallback note()
    {
        return [this](Status status, std::istream& body) {
            Answer answer{status, std::string(std::istreambuf_iterator<char>(body), {})};
            const std::lock_guard<std::mutex> lock(answers_mutex);
            answers.push_back(std::move(answer));
        };
    }

    /// The answer of a GET, once it has come.
    Answer get(const std::string& url)
    {
        {
            const std::lock_guard<std::mutex> lock(answers_mutex);
            answers.clear();
        }
        client->doHttpRequest(url, note());
        return only();
    }

    Answer only()
    {
        ThreadPool::defaultPool().joinAll();
        const std::lock_guard<std::mutex> lock(answers_mutex);
        return answers.size() == 1 ? answers[0] : Answer{-static_cast<int>(answers.size()), "calls"};
    }

    std::string failure(const std::string& url, const std::string& reason)
    {
        return "requst url '" + url + "' exception: " + reason;
    }

    const std::shared_ptr<HttpClient> client = HttpClient::createInstance();
    std::mutex answers_mutex;  // guards answers
    std::vector<Answer> answers;
};

TEST_F(HttpClientTest, PutsEachFormOnTheWireOnAConnectionOfItsOwn)
{
    const RawServer server(kOk);
    const std::string host = server.url("").substr(7);
    Poco::Net::HTMLForm form;
    form.set("name", "a b&c");
    const std::string url = server.url("/p%20q?x=1&y=%26");
    const std::string get =
        "GET /p%20q?x=1&y=%26 HTTP/1.1\r\nConnection: Close\r\nHost: " + host + "\r\n\r\n";
    const auto post = [&](const std::string& type, const std::string& body) {
        return "POST /p%20q?x=1&y=%26 HTTP/1.1\r\nContent-Length: " + std::to_string(body.size()) +
               "\r\nContent-Type: " + type + "\r\nHost: " + host + "\r\n\r\n" + body;
    };
    const std::string no_json = "not {json} \xc3\xa4";
    const std::vector<std::pair<std::function<void()>, std::string>> rows = {
        {[&] { client->doHttpRequest(url, note()); }, get},
        {[&] { client->do_http_request(url, note()); }, get},
        {[&] { client->doHttpRequest(url, no_json, note()); }, post("application/json", no_json)},
        {[&] { client->doHttpRequestSync(url, no_json, note()); }, post("application/json", no_json)},
        {[&] { client->doHttpRequest(url, form, note()); },
         post("application/x-www-form-urlencoded", "name=a%20b%26c")}};
    std::vector<std::string> expected;
    for (const auto& [request, wire] : rows) {
        request();
        ThreadPool::defaultPool().joinAll();
        expected.push_back(wire);
    }
    std::vector<std::string> seen = server.requests();
    std::transform(seen.begin(), seen.end(), seen.begin(), withSortedHeaders);
    EXPECT_EQ(seen, expected);
    EXPECT_EQ(answers, std::vector<Answer>(5, Answer{200, "ok"}));
    EXPECT_TRUE(LogCapture::instance().lines().empty());
}

TEST_F(HttpClientTest, TakesTheUrlAsItStandsAndItsSchemeForAPortAlone)
{
    const RawServer server(kOk);
    const std::string authority = server.url("").substr(7);
    for (const auto& [rest, target] : std::vector<std::pair<std::string, std::string>>{
             {"", ""}, {"?a=b", "?a=b"}, {"/#fragment", "/"}, {"/a?b#c", "/a?b"}})
    {
        EXPECT_EQ(get("https://" + authority + rest), (Answer{200, "ok"}))
            << "plain HTTP, whatever the scheme";
        EXPECT_EQ(server.requests().back().find("GET " + target + " HTTP/1.1\r\n"), 0u) << rest;
    }
    const std::string port = authority.substr(authority.find(':'));
    EXPECT_EQ(get("http://localhost" + port + "/"), (Answer{200, "ok"}));
    // Nobody listens on this address; the port that was tried shows in the log.
    for (const auto& [scheme, tried] : {std::pair("ftp", ":21"), {"http", ":80"}, {"https", ":443"}}) {
        const std::string url = scheme + std::string("://127.77.66.55/");
        EXPECT_EQ(get(url), (Answer{400, ""}));
        EXPECT_TRUE(LogCapture::instance().has(
            test::error(failure(url, std::string("Connection refused: 127.77.66.55") + tried))));
    }
}

TEST_F(HttpClientTest, ReachesAServerByIPv6)
{
    Poco::Net::ServerSocket listener;
    try {
        listener.bind6(Poco::Net::SocketAddress("::1", 0), false, true);
    } catch (const Poco::Exception&) {
        GTEST_SKIP() << "no IPv6 here";
    }
    listener.listen();
    std::thread server([&] {
        Peer peer(listener.acceptConnection());
        peer.message();
        peer.send(kOk);
    });
    EXPECT_EQ(get("http://[::1]:" + std::to_string(listener.address().port()) + "/"), (Answer{200, "ok"}));
    server.join();
}

TEST_F(HttpClientTest, LeavesItToTheReaderWhetherABodyThatIsCutOffIsAFailure)
{
    struct Row
    {
        bool resets;  // or stalls
        bool iterates;
        std::vector<int> statuses{};
        std::promise<void> arrived{};
    };
    std::vector<Row> rows(4);
    std::vector<std::unique_ptr<RawServer>> servers;
    for (std::size_t i = 0; i < rows.size(); ++i) {
        Row& row = rows[i];
        row.resets = i < 2;
        row.iterates = i % 2 == 0;
        servers.push_back(std::make_unique<RawServer>([&row](Peer& peer) {
            peer.send("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\ncut");
            row.arrived.get_future().wait();
            row.resets ? peer.reset() : static_cast<void>(peer.rest());
        }));
        client->doHttpRequest(servers.back()->url("/"), [&row](Status status, std::istream& body) {
            row.statuses.push_back(status);
            if (row.statuses.size() > 1) return;
            row.arrived.set_value();
            char part[100];
            if (row.iterates) {
                std::copy_n(std::istreambuf_iterator<char>(body), sizeof part, part);
            } else {
                EXPECT_TRUE(body.read(part, sizeof part).bad());
            }
        });
    }
    ThreadPool::defaultPool().joinAll();
    for (const auto& row : rows) {
        SCOPED_TRACE(row.resets ? "reset" : "stalled");
        EXPECT_EQ(row.statuses, row.iterates ? (std::vector{200, 400}) : std::vector{200});
    }
}

TEST_F(HttpClientTest, PassesOnWhatTheServerSent)
{
    const std::string head = "HTTP/1.1 ";
    const std::vector<std::pair<std::string, Answer>> rows = {
        {head + "404 Not Found\r\nContent-Length: 4\r\n\r\nnone", {404, "none"}},
        {head + "500 Broken\r\nContent-Length: 0\r\n\r\n", {500, ""}},
        {head + "200 OK\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n1\r\nd\r\n0\r\n\r\n", {200, "abcd"}},
        {head + "200 OK\r\n\r\nto the end", {200, "to the end"}},
        {head + "200 OK\r\nContent-Length: 100\r\n\r\nbroken off", {200, "broken off"}},
        {head + "200 OK\r\nTransfer-Encoding: chunked\r\n\r\nff\r\nbroken off", {200, "broken off"}},
        {head + "302 Found\r\nLocation: /elsewhere\r\nContent-Length: 0\r\n\r\n", {302, ""}}};
    for (const auto& [reply, answer] : rows) {
        SCOPED_TRACE(reply);
        const RawServer server(reply);
        EXPECT_EQ(get(server.url("/")), answer);
    }
    EXPECT_TRUE(LogCapture::instance().lines().empty()) << "none of these is a failed request";
}

TEST_F(HttpClientTest, TakesABodyOf50MiB)
{
    const std::string body(50u << 20, 'x');
    const RawServer server("HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" +
                           body);
    EXPECT_TRUE(get(server.url("/")) == (Answer{200, body}));
}

TEST_F(HttpClientTest, MakesEveryFailureStatus400WithTheReasonInTheLogAlone)
{
    const test::ClosedPort closed;
    const RawServer silent(std::string{});
    const RawServer babbling(std::string("no HTTP at all\r\n\r\n"));
    const std::string nobody = "http://127.0.0.1:" + std::to_string(closed.port()) + "/a?b=c";
    const std::vector<std::pair<std::string, std::string>> rows = {{nobody, "Connection refused"},
                                                                   {silent.url("/?q"), "No message received"},
                                                                   {babbling.url("/"), ""},
                                                                   {"http://[::1", ""},
                                                                   {"http://127.0.0.1:port/", ""},
                                                                   {"", ""},
                                                                   {"no url", ""}};
    for (const auto& [url, reason] : rows) {
        SCOPED_TRACE(url);
        LogCapture::instance().clear();
        EXPECT_EQ(get(url), (Answer{400, ""}));
        ASSERT_EQ(LogCapture::instance().lines().size(), 1u);
        const auto line = LogCapture::instance().lines()[0];
        EXPECT_EQ(line.level, Poco::Message::PRIO_ERROR);
        EXPECT_EQ(line.text.find(failure(url, reason)), 0u) << line;
        EXPECT_EQ(line.text.find("[ERRFMT]"), std::string::npos) << line;
        EXPECT_THROW(client->do_http_request(url, note()), Poco::Exception);
        EXPECT_EQ(LogCapture::instance().lines().size(), 1u)
            << "the plain form leaves failures to its caller";
        EXPECT_EQ(answers.size(), 1u);
    }
}

TEST_F(HttpClientTest, GivesUpOnAServerThatNeverAnswersAfterTheReceiveTimeout)
{
    std::promise<void> over;
    const RawServer server([held = over.get_future().share()](Peer&) { held.wait(); });
    EXPECT_EQ(get(server.url("/")), (Answer{400, ""}));
    EXPECT_TRUE(LogCapture::instance().has(test::error(failure(server.url("/"), "Timeout"))));
    over.set_value();
}

TEST_F(HttpClientTest, GivesUpOnAHostThatDoesNotAcceptAfterTheConnectionTimeout)
{
    // A queue of one that is full: the kernel answers no further attempt.
    Poco::Net::ServerSocket listener;
    listener.bind(Poco::Net::SocketAddress("127.0.0.1", 0));
    listener.listen(0);
    std::vector<Poco::Net::StreamSocket> queued(2);
    for (auto& socket : queued) socket.connectNB(listener.address());
    const std::string url = "http://127.0.0.1:" + std::to_string(listener.address().port()) + "/";
    EXPECT_EQ(get(url), (Answer{400, ""}));
    EXPECT_EQ(LogCapture::instance().countPrefix(failure(url, "Timeout")), 1u);
}

TEST_F(HttpClientTest, RunsTheCallbackASecondTimeOnlyForAPocoException)
{
    const RawServer server(kOk);
    const std::string url = server.url("/");
    std::atomic<int> calls{0};
    const auto throwing = [&](auto error) {
        calls = 0;
        LogCapture::instance().clear();
        return [&, error](Status status, std::istream& body) {
            note()(status, body);
            if (++calls == 1) throw error;
        };
    };
    client->doHttpRequest(url, throwing(Poco::NotFoundException("mine")));
    ThreadPool::defaultPool().joinAll();
    EXPECT_EQ(answers, (std::vector<Answer>{{200, "ok"}, {400, ""}}));
    EXPECT_EQ(LogCapture::instance().lines(), std::vector{test::error(failure(url, "Not found: mine"))});

    client->doHttpRequest(url, "body", throwing(std::runtime_error("plain")));
    ThreadPool::defaultPool().joinAll();
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(LogCapture::instance().lines(), std::vector{test::error("plain")}) << "from the pool";

    client->doHttpRequest(url, throwing(5));
    ThreadPool::defaultPool().joinAll();
    EXPECT_EQ(calls, 1);
    EXPECT_TRUE(LogCapture::instance().lines().empty());

    EXPECT_THROW(client->doHttpRequestSync(url, "", throwing(std::runtime_error("plain"))),
                 std::runtime_error);
    EXPECT_EQ(calls, 1);
    EXPECT_NO_THROW(client->doHttpRequestSync(url, "", throwing(Poco::NotFoundException("mine"))));
    EXPECT_EQ(calls, 2);
}

TEST_F(HttpClientTest, TakesAnEmptyCallbackForAnAnswerButNotForAFailure)
{
    const RawServer server(kOk);
    EXPECT_NO_THROW(client->doHttpRequestSync(server.url("/"), "", {}));
    EXPECT_NO_THROW(client->do_http_request(server.url("/"), {}));
    client->doHttpRequest(server.url("/"), HttpResponseCallback());
    ThreadPool::defaultPool().joinAll();
    EXPECT_TRUE(LogCapture::instance().lines().empty());
    EXPECT_EQ(server.requests().size(), 3u);

    EXPECT_THROW(client->doHttpRequestSync("http://[", "", {}), std::bad_function_call);
    client->doHttpRequest("http://[", HttpResponseCallback());
    EXPECT_TRUE(
        test::eventually([] { return LogCapture::instance().has(test::error("bad_function_call")); }));
}

TEST_F(HttpClientTest, PassesTheRefusalOfTheFullPoolToItsCaller)
{
    std::promise<void> over;
    const auto held = over.get_future().share();
    for (int i = 0; i < 32; ++i) ThreadPool::defaultPool().start([held] { held.wait(); });
    Poco::Net::HTMLForm form;
    EXPECT_THROW(client->doHttpRequest("http://127.0.0.1/", note()), Poco::NoThreadAvailableException);
    EXPECT_THROW(client->doHttpRequest("http://127.0.0.1/", "", note()), Poco::NoThreadAvailableException);
    EXPECT_THROW(client->doHttpRequest("http://127.0.0.1/", form, note()), Poco::NoThreadAvailableException);
    over.set_value();
    ThreadPool::defaultPool().joinAll();
    EXPECT_TRUE(answers.empty());
}

TEST_F(HttpClientTest, FinishesARequestWhoseClientHasGone)
{
    std::promise<void> gone;
    const RawServer server([&](Peer& peer) {
        gone.get_future().wait();
        peer.send(kOk);
    });
    auto passing = HttpClient::createInstance();
    passing->doHttpRequest(server.url("/"), note());
    passing.reset();
    gone.set_value();
    EXPECT_EQ(only(), (Answer{200, "ok"}));
    EXPECT_EQ(HttpClient::defaultHttpClient(), HttpClient::defaultHttpClient());
    EXPECT_NE(HttpClient::defaultHttpClient(), HttpClient::createInstance());
}

}  // namespace
}  // namespace kro
