#include "HttpServer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>

#include <Poco/ErrorHandler.h>
#include <Poco/Exception.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/StreamCopier.h>
#include <Poco/ThreadPool.h>

#include "support/RawHttp.h"
#include "support/WithSafeguards.h"

namespace kro
{
namespace
{
using Poco::Net::HTTPServerRequest;
using Poco::Net::HTTPServerResponse;
using test::Peer;

class HttpServerTest : public testing::Test
{
protected:
    ~HttpServerTest() override
    {
        Poco::ThreadPool::defaultPool()
            .joinAll();  // of POCO's threads none may be serving when the program ends
    }
    std::shared_ptr<HttpServer> serve(RequestCallback callback)
    {
        auto server =
            HttpServer::createInstance(socket, new Poco::Net::HTTPServerParams, std::move(callback));
        server->start();
        return server;
    }
    std::string ask(const std::string& text)
    {
        Peer peer(socket.address().port());
        peer.send(text);
        return peer.message();
    }

    const Poco::Net::ServerSocket socket{Poco::Net::SocketAddress("127.0.0.1", 0)};
};

void echo(HTTPServerRequest& request, HTTPServerResponse& response)
{
    const std::string text = request.getMethod() + " " + request.getURI();
    response.sendBuffer(text.data(), text.size());
}

TEST_F(HttpServerTest, HandsEveryRequestWithAnyMethodAndUriToACopyOfTheCallback)
{
    struct Counting
    {
        explicit Counting(std::atomic<int>& total) : copies(&total) {}
        Counting(const Counting& other) : copies(other.copies) { ++*copies; }
        void operator()(HTTPServerRequest& request, HTTPServerResponse& response) const
        {
            echo(request, response);
        }
        std::atomic<int>* copies;
    };
    std::atomic<int> copies{0};
    const auto server = serve(Counting(copies));
    const int before = copies;
    Peer kept(socket.address().port());
    kept.send(test::get("/a?b"));
    EXPECT_EQ(test::bodyOf(kept.message()), "GET /a?b");
    const int first = copies - before;
    EXPECT_GE(first, 1);
    kept.send("BREW * HTTP/1.1\r\nHost: test\r\n\r\n");
    EXPECT_EQ(test::bodyOf(kept.message()), "BREW *");
    EXPECT_EQ(copies - before, 2 * first) << "a kept connection has a fresh handler for each request, too";
    server->stop();
}

TEST_F(HttpServerTest, PassesEveryExceptionToPocoAndGoesOn)
{
    struct Errors : Poco::ErrorHandler
    {
        void exception(const Poco::Exception& e) override { note(e.displayText()); }
        void exception(const std::exception& e) override { note(e.what()); }
        void exception() override { note("unknown"); }
        void note(const std::string& text)
        {
            const std::lock_guard<std::mutex> lock(mutex);
            texts.insert(text);
        }
        std::mutex mutex;  // guards texts while threads serve
        std::multiset<std::string> texts;
    } errors;
    auto* const before = Poco::ErrorHandler::set(&errors);
    {
        const auto empty = serve({});
        for (int i = 0; i < 2; ++i) EXPECT_EQ(ask(test::get("/")).compare(0, 12, "HTTP/1.1 500"), 0);
        empty->stop();
    }
    const auto server = serve([](HTTPServerRequest& request, HTTPServerResponse& response) {
        if (request.getURI() == "/poco") throw Poco::NotFoundException("mine");
        if (request.getURI() == "/std") throw std::runtime_error("plain");
        if (request.getURI() == "/int") throw 5;
        echo(request, response);
    });
    EXPECT_EQ(ask(test::get("/poco")).compare(0, 12, "HTTP/1.1 500"), 0);
    EXPECT_EQ(ask(test::get("/std")), "");
    EXPECT_EQ(ask(test::get("/int")), "");
    EXPECT_EQ(test::bodyOf(ask(test::get("/good"))), "GET /good");
    server->stop();
    Poco::ThreadPool::defaultPool().joinAll();
    Poco::ErrorHandler::set(before);
    const std::string no_callback = "Null pointer: request handle callabck is empty";
    EXPECT_EQ(errors.texts,
              (std::multiset<std::string>{no_callback, no_callback, "Not found: mine", "plain", "unknown"}));
}

TEST_F(HttpServerTest, LeavesRequestsInFlightAloneWhenItStopsAndGoes)
{
    std::promise<void> arrived;
    std::promise<void> gone;
    auto server = serve([&](HTTPServerRequest& request, HTTPServerResponse& response) {
        arrived.set_value();
        gone.get_future().wait();
        echo(request, response);
    });
    Peer peer(socket.address().port());
    peer.send(test::get("/held"));
    arrived.get_future().wait();
    server->stop();
    server.reset();
    gone.set_value();
    EXPECT_EQ(test::bodyOf(peer.message()), "GET /held");
}

TEST_F(HttpServerTest, DoesNotAcceptBeforeStartNorAfterStop)
{
    const auto waits = [this] {  // a connection stands in the queue of the kernel, and nobody has taken it
        return Poco::Net::ServerSocket(socket).poll(Poco::Timespan(10, 0), Poco::Net::Socket::SELECT_READ);
    };
    const auto server = HttpServer::createInstance(socket, new Poco::Net::HTTPServerParams, echo);
    Peer early(socket.address().port());
    early.send(test::get("/early"));
    EXPECT_TRUE(waits());
    server->start();
    EXPECT_EQ(test::bodyOf(early.message()), "GET /early");
    server->stop();
    const Peer late(socket.address().port());
    EXPECT_TRUE(waits());
}

/// Answers in the way that the path names with all that the request tells; "Expect" aside.
void answerInEveryWay(HTTPServerRequest& request, HTTPServerResponse& response)
{
    std::string text = request.getMethod() + " " + request.getURI() + " " + request.getVersion() + "\n";
    for (const auto& [name, value] : request)
        if (name != "Expect") text += name + "=" + value + "\n";
    text += request.clientAddress().host().toString() + " " + request.serverAddress().toString() + "\n";
    Poco::StreamCopier::copyToString(request.stream(), text);
    if (request.getURI() == "/poco") throw Poco::NotFoundException("mine");
    if (request.getURI() == "/std") throw std::runtime_error("plain");
    if (request.getURI() == "/none") response.setStatusAndReason(HTTPServerResponse::HTTP_NO_CONTENT);
    if (request.getURI() == "/chunks") response.setChunkedTransferEncoding(true);
    if (request.getURI() == "/length") response.setContentLength(static_cast<std::streamsize>(text.size()));
    if (request.getURI() == "/buffer")
        response.sendBuffer(text.data(), text.size());
    else if (request.getURI() == "/file")
        response.sendFile("/etc/passwd", "text/plain");
    else if (request.getURI() == "/redirect")
        response.redirect("/buffer");
    else
        response.send() << text;
}

TEST_F(HttpServerTest, ServesAPlainRequestToTheByteAsPocoDoes)
{
    const test::WithSafeguards guarded(kAnswerAlways);
    const auto server = serve(answerInEveryWay);
    const auto reply = [&](const std::string& method, const std::string& uri, const std::string& more) {
        Peer peer(socket.address().port());
        peer.send(method + " " + uri + " HTTP/1.1\r\nHost:  a \r\nx-Two: b\r\nx-two: c:d\r\nEmpty:\r\n" +
                  more);
        peer.finishSending();
        std::string text = peer.rest();
        if (const auto date = text.find("Date: "); date != std::string::npos) text.erase(date, 37);
        return text;
    };
    for (const auto* uri :
         {"/buffer", "/chunks", "/length", "/open", "/none", "/file", "/redirect", "/poco", "/std"})
        for (const auto* more : {"\r\n", "Connection: close\r\n\r\n", "Content-Length: 4\r\n\r\nbody",
                                 "Content-Length: 0\r\n\r\n"})
            for (const auto* method : {"GET", "POST"}) {
                if (std::string("POST") == method && std::string(more).find("Length") == std::string::npos)
                    continue;
                SCOPED_TRACE(std::string(method) + uri + more);
                EXPECT_EQ(reply(method, uri, more), reply(method, uri, std::string("Expect: no\r\n") + more));
            }
    server->stop();
}

TEST_F(HttpServerTest, TakesRequestsInPiecesAndSeveralAtOnce)
{
    const test::WithSafeguards guarded(kAnswerAlways);
    const auto server = serve(answerInEveryWay);
    const std::string request = test::get("/buffer") + test::post("/chunks", "body") + test::get("/buffer");
    for (std::size_t first = 0; first < request.size(); first += 7) {
        Peer peer(socket.address().port());
        peer.send(request.substr(0, first));
        const bool has_one = first >= test::get("/buffer").size();
        std::string last = has_one ? peer.message() : "";  // so the first piece has arrived
        peer.send(request.substr(first));
        for (int i = has_one ? 1 : 0; i < 3; ++i) last = peer.message();
        EXPECT_EQ(test::bodyOf(last).substr(0, 11), "GET /buffer") << first;
    }
    const std::string none[] = {"GET /a b HTTP/1.1\r\n\r\n", "GET\r\n\r\n",
                                "GET /a HTTP/1.1\r\nno colon\r\n\r\n",
                                "POST /a HTTP/1.1\r\nContent-Length: 1\r\nContent-Length: 2\r\n\r\nab"};
    for (const auto& text : none) {
        Peer peer(socket.address().port());
        peer.send(text);
        peer.finishSending();
        peer.rest();  // whatever POCO makes of it
    }
    EXPECT_EQ(test::bodyOf(ask(test::get("/buffer"))).substr(0, 11), "GET /buffer");
    server->stop();
}

}  // namespace
}  // namespace kro
