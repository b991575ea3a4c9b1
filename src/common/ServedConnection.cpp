#include "ServedConnection.h"

#include <algorithm>
#include <charconv>
#include <ctime>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>

#include <Poco/DateTimeFormat.h>
#include <Poco/DateTimeFormatter.h>
#include <Poco/Exception.h>
#include <Poco/File.h>
#include <Poco/FileStream.h>
#include <Poco/Net/HTTPRequestHandler.h>
#include <Poco/Net/HTTPServerConnection.h>
#include <Poco/Net/HTTPServerRequest.h>
#include <Poco/Net/HTTPServerResponseImpl.h>
#include <Poco/Net/HTTPServerSession.h>
#include <Poco/Net/TCPServerConnection.h>
#include <Poco/StreamCopier.h>
#include <Poco/String.h>
#include <Poco/Timestamp.h>

#include "ServedSocket.h"

namespace kro::detail
{

using Poco::Net::HTTPResponse;
using Poco::Net::HTTPServerParams;
using Poco::Net::HTTPServerRequest;

namespace
{
/// As HTTPResponse::setDate() writes it; made once a second.
const std::string& dateOfNow()
{
    thread_local std::time_t second = 0;
    thread_local std::string text;
    const Poco::Timestamp now;
    if (now.epochTime() != second) {
        text = Poco::DateTimeFormatter::format(now, Poco::DateTimeFormat::HTTP_FORMAT);
        second = now.epochTime();
    }
    return text;
}

/// POCO's response, but one send for an answer that is known as a whole. Not for HEAD.
class Response : public Poco::Net::HTTPServerResponseImpl
{
public:
    Response(Poco::Net::HTTPServerSession& session, ServedSocket& connection)
        : HTTPServerResponseImpl(session), socket(connection)
    {}

    std::ostream& send() override
    {
        poco_assert(!sent());
        return HTTPServerResponseImpl::send();
    }

    void redirect(const std::string& uri, HTTPStatus status) override
    {
        poco_assert(!sent());
        HTTPServerResponseImpl::redirect(uri, status);
    }

    void requireAuthentication(const std::string& realm) override
    {
        poco_assert(!sent());
        HTTPServerResponseImpl::requireAuthentication(realm);
    }

    void sendBuffer(const void* buffer, std::size_t length) override
    {
        poco_assert(!sent());
        setChunkedTransferEncoding(false);
        setContentLength64(static_cast<Poco::Int64>(length));
        thread_local std::string text;
        text.clear();
        text.append(getVersion()).append(1, ' ').append(std::to_string(static_cast<int>(getStatus())));
        text.append(1, ' ').append(getReason()).append("\r\n");
        for (const auto& [name, value] : *this) text.append(name).append(": ").append(value).append("\r\n");
        text.append("\r\n").append(static_cast<const char*>(buffer), length);
        sent_whole = true;
        socket.sendBytes(text.data(), static_cast<int>(text.size()));
        if (text.capacity() > kKeptBytes) std::string().swap(text);
    }

    // POCO's asks the request that it has read for its method.
    void sendFile(const std::string& path, const std::string& media_type) override
    {
        poco_assert(!sent());
        const Poco::File file(path);
        set("Last-Modified",
            Poco::DateTimeFormatter::format(file.getLastModified(), Poco::DateTimeFormat::HTTP_FORMAT));
        setContentLength64(static_cast<Poco::Int64>(file.getSize()));
        setContentType(media_type);
        setChunkedTransferEncoding(false);
        Poco::FileInputStream content(path);
        Poco::StreamCopier::copyStream(content, send());
    }

    bool sent() const override { return sent_whole || HTTPServerResponseImpl::sent(); }

private:
    static constexpr std::size_t kKeptBytes = 64u << 10;

    ServedSocket& socket;
    bool sent_whole = false;
};

class Request : public HTTPServerRequest
{
public:
    Request(Poco::Net::HTTPServerResponse& answer, const HTTPServerParams& server_params,
            const Poco::Net::SocketAddress& client_address, const Poco::Net::SocketAddress& server_address)
        : reply(answer), params(server_params), client(client_address), server(server_address)
    {}

    /// Reads a plain request from the front of `text`.
    /// @return its length; 0 if it isn't a plain one, which POCO may still understand, or refuse.
    std::size_t parse(std::string_view text);

    std::istream& stream() override
    {
        if (!body_stream) body_stream.emplace(body);
        return *body_stream;
    }
    const Poco::Net::SocketAddress& clientAddress() const override { return client; }
    const Poco::Net::SocketAddress& serverAddress() const override { return server; }
    const HTTPServerParams& serverParams() const override { return params; }
    Poco::Net::HTTPServerResponse& response() const override { return reply; }
    bool secure() const override { return false; }

private:
    bool parseHeader(std::string_view line);

    Poco::Net::HTTPServerResponse& reply;
    const HTTPServerParams& params;
    const Poco::Net::SocketAddress& client;
    const Poco::Net::SocketAddress& server;
    std::string body;
    std::optional<std::istringstream> body_stream;  // most requests have no body, and streams are dear
};

constexpr std::size_t kMostNameBytes = 256;  // of a field; POCO refuses longer ones
constexpr std::size_t kMostValueBytes = 8192;

bool isTokenCharacter(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           std::string_view("!#$%&'*+-.^_`|~").find(c) != std::string_view::npos;
}

bool isPrintable(char c)
{
    return c >= ' ' && c <= '~';
}

bool Request::parseHeader(std::string_view line)
{
    const auto colon = line.find(':');
    if (colon == 0 || colon == std::string_view::npos) return false;
    if (colon > kMostNameBytes || line.size() - colon > kMostValueBytes) return false;
    std::string_view value = line.substr(colon + 1);
    while (!value.empty() && value.front() == ' ') value.remove_prefix(1);
    while (!value.empty() && value.back() == ' ') value.remove_suffix(1);
    const std::string name(line.substr(0, colon));
    // "=?" begins a word that POCO decodes.
    if (!std::all_of(name.begin(), name.end(), isTokenCharacter) ||
        !std::all_of(value.begin(), value.end(), isPrintable) || value.find("=?") != std::string_view::npos)
        return false;
    for (const auto* other : {"Transfer-Encoding", "Expect", "Upgrade"})
        if (Poco::icompare(name, other) == 0) return false;
    if (Poco::icompare(name, CONTENT_LENGTH) == 0 && has(CONTENT_LENGTH)) return false;
    add(name, std::string(value));
    return true;
}

std::size_t Request::parse(std::string_view text)
{
    const auto head_end = text.find("\r\n\r\n");
    if (head_end == std::string_view::npos) return 0;
    const std::string_view line = text.substr(0, text.find("\r\n"));
    const auto blank = line.find(' ');
    const std::string_view method = line.substr(0, blank);
    const std::string_view version = " HTTP/1.1";
    if ((method != "GET" && method != "POST") || line.size() < method.size() + 2 + version.size() ||
        line.substr(line.size() - version.size()) != version)
        return 0;
    const std::string_view uri =
        line.substr(method.size() + 1, line.size() - method.size() - 1 - version.size());
    if (uri.front() != '/' ||
        !std::all_of(uri.begin(), uri.end(), [](char c) { return isPrintable(c) && c != ' '; }))
        return 0;
    setMethod(std::string(method));
    setURI(std::string(uri));
    setVersion(HTTP_1_1);
    const auto most_headers = static_cast<std::size_t>(100);
    for (std::size_t at = line.size(); at < head_end;) {
        at += 2;
        const auto end = std::min(text.find("\r\n", at), head_end);
        if (size() == most_headers || !parseHeader(text.substr(at, end - at))) return 0;
        at = end;
    }
    const std::size_t head_bytes = head_end + 4;
    std::size_t body_bytes = 0;
    if (const auto length = find(CONTENT_LENGTH); length != end()) {
        const std::string& digits = length->second;
        const auto [last, error] = std::from_chars(digits.data(), digits.data() + digits.size(), body_bytes);
        if (error != std::errc() || last != digits.data() + digits.size() ||
            body_bytes > text.size() - head_bytes)
            return 0;
    } else if (method != "GET") {
        return 0;
    }
    body = text.substr(head_bytes, body_bytes);
    return head_bytes + body_bytes;
}

class ServedConnection : public Poco::Net::TCPServerConnection
{
public:
    ServedConnection(const Poco::Net::StreamSocket& accepted, HTTPServerParams::Ptr server_params,
                     Poco::Net::HTTPRequestHandlerFactory::Ptr handler_factory)
        : TCPServerConnection(accepted), params(std::move(server_params)), factory(std::move(handler_factory))
    {}

    void run() override
    {
        // Not made by the factory: a client that is gone already has no address, and what is thrown there
        // ends POCO's thread for good.
        ServedSocket& served = *new ServedSocket(socket());
        const Poco::Net::StreamSocket connection(&served);  // owns it
        Poco::Net::HTTPServerSession session(connection, params);
        const auto client = served.peerAddress();
        const auto server = served.address();
        while (session.hasMoreRequests()) {
            Response response(session, served);
            Request request(response, *params, client, server);
            const std::size_t bytes = request.parse(served.ahead());
            if (bytes == 0) {
                Poco::Net::HTTPServerConnection(connection, params, factory).run();
                return;
            }
            served.consume(bytes);
            serve(served, session, request, response);
        }
    }

private:
    /// As POCO's connection does it.
    void serve(ServedSocket& served, Poco::Net::HTTPServerSession& session, Request& request,
               Response& response)
    {
        response.set("Date", dateOfNow());
        response.setVersion(request.getVersion());
        const auto keep = [&](bool wanted) {
            return params->getKeepAlive() && wanted && session.canKeepAlive();
        };
        response.setKeepAlive(keep(request.getKeepAlive()));
        if (!params->getSoftwareVersion().empty()) response.set("Server", params->getSoftwareVersion());
        try {
            const std::unique_ptr<Poco::Net::HTTPRequestHandler> handler(
                factory->createRequestHandler(request));
            handler->handleRequest(request, response);
        } catch (const Poco::Exception&) {
            if (!response.sent()) {
                Response failure(session, served);
                failure.setVersion(request.getVersion());
                failure.setStatusAndReason(HTTPResponse::HTTP_INTERNAL_SERVER_ERROR);
                failure.setKeepAlive(false);
                failure.send();
            }
            breakOff(response);
            throw;
        } catch (...) {
            breakOff(response);
            throw;
        }
        session.setKeepAlive(keep(response.getKeepAlive()));
    }

    /// Chunks would be ended in order, and half an answer taken for a whole one.
    void breakOff(const Response& response)
    {
        if (response.sent() && response.getChunkedTransferEncoding()) socket().shutdown();
    }

    HTTPServerParams::Ptr params;
    Poco::Net::HTTPRequestHandlerFactory::Ptr factory;
};
}  // namespace

ServedConnectionFactory::ServedConnectionFactory(HTTPServerParams::Ptr server_params,
                                                 Poco::Net::HTTPRequestHandlerFactory::Ptr handler_factory)
    : params(std::move(server_params)), factory(std::move(handler_factory))
{}

Poco::Net::TCPServerConnection* ServedConnectionFactory::createConnection(
    const Poco::Net::StreamSocket& socket)
{
    // What stands on a secure socket's descriptor is not what was sent; and two sessions on one connection
    // would each count its requests from the first.
    if (socket.impl()->secure() || params->getMaxKeepAliveRequests() > 0)
        return new Poco::Net::HTTPServerConnection(socket, params, factory);
    return new ServedConnection(socket, params, factory);
}

}  // namespace kro::detail
