#include "HttpServer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>

#include <Poco/ErrorHandler.h>
#include <Poco/Exception.h>
#include <Poco/Net/HTTPRequestHandler.h>
#include <Poco/Net/HTTPServerConnection.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/StreamSocketImpl.h>
#include <Poco/StreamCopier.h>
#include <Poco/ThreadPool.h>

#include "ServedConnection.h"
#include "support/Eventually.h"
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

TEST_F(HttpServerTest, LosesNoThreadToClientsThatAreGoneBeforeTheyAreServed)
{
    const test::WithSafeguards guarded(kAnswerAlways);
    auto* const params = new Poco::Net::HTTPServerParams;
    params->setThreadIdleTime(Poco::Timespan(0, 100'000));  // else the end may wait 10 s for POCO's threads
    const auto server = HttpServer::createInstance(socket, params, echo);
    for (int i = 0; i < 40; ++i) Peer(socket.address().port()).reset();  // POCO has 16 threads
    server->start();
    // POCO may refuse one while a thread is between its work and its pool.
    EXPECT_TRUE(test::eventually([&] { return test::bodyOf(ask(test::get("/good"))) == "GET /good"; }));
    server->stop();
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
    if (request.getURI() == "/close") response.setKeepAlive(false);
    if (request.getURI() == "/chunks") response.setChunkedTransferEncoding(true);
    if (request.getURI() == "/length") response.setContentLength(static_cast<std::streamsize>(text.size()));
    if (request.getURI() == "/buffer" || request.getURI() == "/close")
        response.sendBuffer(text.data(), text.size());
    else if (request.getURI() == "/file")
        response.sendFile("/etc/passwd", "text/plain");
    else if (request.getURI() == "/redirect")
        response.redirect("/buffer");
    else
        response.send() << text;
    if (request.getURI() == "/buffer" && request.has("again")) {
        if (request.get("again") == "move") response.redirect("/length");
        if (request.get("again") == "ask") response.requireAuthentication("all");
        response.send() << "again";
    }
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
    const auto field = [](std::size_t name, std::size_t value) {
        return std::string(name, 'n') + ":" + std::string(value, 'v') + "\r\n\r\n";
    };
    for (const auto* uri :
         {"/buffer", "/chunks", "/length", "/open", "/none", "/file", "/redirect", "/poco", "/std"})
        for (const std::string& more :
             {std::string("\r\n"), std::string("Connection: close\r\n\r\n"),
              std::string("Content-Length: 4\r\n\r\nbody"), std::string("Content-Length: 0\r\n\r\n"),
              std::string("again: so\r\n\r\n"), std::string("again: move\r\n\r\n"),
              std::string("again: ask\r\n\r\n"), field(256, 1), field(257, 1), field(1, 8192),
              field(1, 8193)})
            for (const auto* method : {"GET", "POST"}) {
                if (std::string("POST") == method && more.find("Length") == std::string::npos) continue;
                SCOPED_TRACE(std::string(method) + uri + more);
                EXPECT_EQ(reply(method, uri, more), reply(method, uri, "Expect: no\r\n" + more));
            }
    server->stop();
}

TEST(ServedConnectionTest, LeavesSecureSocketsAndLimitedConnectionsToPoco)
{
    using namespace Poco::Net;
    struct Nobody : HTTPRequestHandlerFactory
    {
        HTTPRequestHandler* createRequestHandler(const HTTPServerRequest&) override { return nullptr; }
    };
    struct Secure : StreamSocketImpl
    {
        bool secure() const override { return true; }
    };
    const auto isPocos = [](const StreamSocket& socket, int most_requests) {
        HTTPServerParams::Ptr params(new HTTPServerParams);
        params->setMaxKeepAliveRequests(most_requests);
        detail::ServedConnectionFactory factory(params, new Nobody);
        const std::unique_ptr<TCPServerConnection> made(factory.createConnection(socket));
        return dynamic_cast<HTTPServerConnection*>(made.get()) != nullptr;
    };
    EXPECT_FALSE(isPocos(StreamSocket(), 0));
    EXPECT_TRUE(isPocos(StreamSocket(new Secure), 0)) << "what stands on its descriptor is not what was sent";
    EXPECT_TRUE(isPocos(StreamSocket(), 2)) << "else two sessions would each count from the first";
}

TEST_F(HttpServerTest, EndsAConnectionThatIsIdleTooLongBesideOneThatIsNot)
{
    for (const unsigned bits : {0u, unsigned{kAnswerAlways}}) {
        const test::WithSafeguards guarded(bits);
        auto* const params = new Poco::Net::HTTPServerParams;
        params->setKeepAliveTimeout(Poco::Timespan(0, 300'000));
        const auto server = HttpServer::createInstance(socket, params, echo);
        server->start();
        for (const bool beside : {false, true}) {
            Peer idle(socket.address().port());
            idle.send(test::get("/a"));
            EXPECT_EQ(test::bodyOf(idle.message()), "GET /a");
            std::atomic<bool> over{false};
            std::thread other([&, peer = Peer(socket.address().port())]() mutable {
                while (beside && !over) {
                    peer.send(test::get("/b"));
                    EXPECT_EQ(test::bodyOf(peer.message()), "GET /b");
                }
            });
            EXPECT_EQ(idle.rest(), "");
            over = true;
            other.join();
        }
        server->stop();
    }
}

TEST_F(HttpServerTest, TakesRequestsInPiecesAndSeveralAtOnce)
{
    const test::WithSafeguards guarded(kAnswerAlways);
    const auto server = serve(answerInEveryWay);
    const std::string first = test::get("/buffer"), second = test::post("/chunks", "body");
    const std::string all = first + second + first;
    for (std::size_t cut = first.size(); cut < all.size(); ++cut) {
        Peer peer(socket.address().port());
        peer.send(all.substr(0, cut));
        peer.message();  // so the first piece has arrived
        peer.send(all.substr(cut));
        const std::string posted = test::bodyOf(peer.message());
        EXPECT_EQ(posted.substr(posted.size() - 4), "body") << cut;
        EXPECT_EQ(test::bodyOf(peer.message()).substr(0, 11), "GET /buffer") << cut;
    }
    Peer asking(socket.address().port());
    asking.send("POST /buffer HTTP/1.1\r\nContent-Length: 4\r\nExpect: 100-continue\r\n\r\nbody");
    EXPECT_EQ(asking.message().substr(0, 12), "HTTP/1.1 100");
    Peer closing(socket.address().port());
    closing.send(test::get("/close") + first);
    EXPECT_EQ(closing.rest().find("GET /buffer"), std::string::npos) << "the handler ends the connection";
    server->stop();
}

}  // namespace
}  // namespace kro
