#include "HttpServer.h"

#include <utility>

#include <Poco/Exception.h>
#include <Poco/SharedPtr.h>

#include "Safeguards.h"
#include "ServedConnection.h"

namespace kro
{

HttpServer::RequestHandlerFactory::RequestHandlerFactory(RequestCallback callback)
    : request_callback(std::move(callback))
{}

Poco::Net::HTTPRequestHandler* HttpServer::RequestHandlerFactory::createRequestHandler(
    const Poco::Net::HTTPServerRequest&)
{
    return new RequestHandler(request_callback);  // POCO deletes it after the request
}

HttpServer::RequestHandler::RequestHandler(RequestCallback callback) : request_callback(std::move(callback))
{}

void HttpServer::RequestHandler::handleRequest(Poco::Net::HTTPServerRequest& request,
                                               Poco::Net::HTTPServerResponse& response)
{
    // Settled: an empty callback is found out here, not at construction.
    if (!request_callback) throw Poco::NullPointerException("request handle callabck is empty");
    request_callback(request, response);
}

HttpServer::HttpServer(const Poco::Net::ServerSocket& socket,
                       Poco::AutoPtr<Poco::Net::HTTPServerParams> params, RequestCallback callback)
{
    const Poco::SharedPtr<Poco::Net::HTTPRequestHandlerFactory> factory(
        new RequestHandlerFactory(std::move(callback)));
    // Safeguard: the same answers with fewer calls of the system.
    if (safeguarded(kAnswerAlways))
        server = std::make_unique<Poco::Net::TCPServer>(new detail::ServedConnectionFactory(params, factory),
                                                        socket, params);
    else
        server = std::make_unique<Poco::Net::HTTPServer>(factory, socket, std::move(params));
}

HttpServer::~HttpServer() = default;

std::shared_ptr<HttpServer> HttpServer::createInstance(const Poco::Net::ServerSocket& socket,
                                                       Poco::AutoPtr<Poco::Net::HTTPServerParams> params,
                                                       RequestCallback callback)
{
    return std::shared_ptr<HttpServer>(new HttpServer(socket, std::move(params), std::move(callback)));
}

void HttpServer::start()
{
    if (server) server->start();
}

void HttpServer::stop()
{
    // Settled: TCPServer::stop(), not stopAll(): connections are not cut off.
    if (server) server->stop();
}

}  // namespace kro
