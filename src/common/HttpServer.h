#ifndef KRO_HTTP_SERVER_H
#define KRO_HTTP_SERVER_H

#include <functional>
#include <memory>

#include <Poco/AutoPtr.h>
#include <Poco/Net/HTTPRequestHandler.h>
#include <Poco/Net/HTTPRequestHandlerFactory.h>
#include <Poco/Net/HTTPServer.h>
#include <Poco/Net/HTTPServerParams.h>
#include <Poco/Net/HTTPServerRequest.h>
#include <Poco/Net/HTTPServerResponse.h>
#include <Poco/Net/ServerSocket.h>

#include "KroApi.h"

namespace kro
{

/// Answers one request. It runs on POCO's server threads, on several at once, and every request has a copy of
/// its own, so that what it captures by reference or pointer is shared. It may stop the server.
/// It must write an answer: a client whose request gets none waits until the connection ends. What it throws
/// goes to POCO, which answers 500 for a Poco::Exception and closes the connection for anything else.
using RequestCallback = std::function<void(Poco::Net::HTTPServerRequest&, Poco::Net::HTTPServerResponse&)>;

/// Turns one function into an HTTP server on a listening socket of the caller. It routes nothing, sets no
/// header and reads no configuration: threads, queue, keep-alive and time-outs are what the parameters say.
///
/// With kAnswerAlways, chosen before the construction, a request that has arrived whole is served with two to
/// six calls of the system instead of ten; what is read and what goes out is the same. Connections of a
/// secure socket, and all of them with setMaxKeepAliveRequests(), stay POCO's.
///
/// start() and stop() take no lock: call them from one thread.
class KRO_API HttpServer
{
public:
    /// @param socket    bound and listening; with one that does not listen nothing is served, and the thread
    ///                  that POCO accepts on spins.
    /// @param params    shared with POCO's server.
    /// @param callback  copied. An empty one is found out at each request, which then gets 500.
    HttpServer(const Poco::Net::ServerSocket& socket, Poco::AutoPtr<Poco::Net::HTTPServerParams> params,
               RequestCallback callback);
    ~HttpServer();  ///< stops accepting, as POCO's destructor does; see stop()
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    /// As the constructor, whose exceptions it passes on.
    static std::shared_ptr<HttpServer> createInstance(const Poco::Net::ServerSocket& socket,
                                                      Poco::AutoPtr<Poco::Net::HTTPServerParams> params,
                                                      RequestCallback callback);

    /// Begins to accept, on a thread of its own. What a second call does is up to POCO.
    void start();

    /// Ends accepting, within POCO's poll of 250 ms; the socket stays open, with its owner. Requests in
    /// flight go on, and a kept connection is served until it ends or its keep-alive time is over, even when
    /// the HttpServer is gone by then. Connections that wait for a thread, up to POCO's 64 by default, are
    /// closed without an answer.
    void stop();

private:
    class RequestHandlerFactory : public Poco::Net::HTTPRequestHandlerFactory
    {
    public:
        explicit RequestHandlerFactory(RequestCallback callback);
        Poco::Net::HTTPRequestHandler* createRequestHandler(
            const Poco::Net::HTTPServerRequest& request) override;

    private:
        RequestCallback request_callback;
    };

    class RequestHandler : public Poco::Net::HTTPRequestHandler
    {
    public:
        explicit RequestHandler(RequestCallback callback);
        void handleRequest(Poco::Net::HTTPServerRequest& request,
                           Poco::Net::HTTPServerResponse& response) override;

    private:
        RequestCallback request_callback;
    };

    std::unique_ptr<Poco::Net::TCPServer> server;  // null only while the constructor runs
};

}  // namespace kro

#endif
