#include "WebApiBasic.h"

#include <algorithm>
#include <charconv>
#include <exception>
#include <istream>
#include <limits>
#include <list>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include <Poco/Exception.h>
#include <Poco/JSON/Array.h>
#include <Poco/JSON/ParseHandler.h>
#include <Poco/JSON/Parser.h>
#include <Poco/MemoryStream.h>
#include <Poco/Net/HTTPServerRequestImpl.h>
#include <Poco/Net/HTTPServerSession.h>
#include <Poco/Net/HTTPStream.h>
#include <Poco/String.h>
#include <Poco/Timestamp.h>
#include <Poco/URI.h>

#include "ApiCommon.h"
#include "JsonText.h"
#include "Logger.h"
#include "Safeguards.h"

namespace kro
{

using Poco::Net::HTTPServerRequest;
using Poco::Net::HTTPServerResponse;

std::shared_ptr<WebApiBasic> WebApiBasic::s_instance;
std::mutex WebApiBasic::s_inst_mutex;

namespace
{
/// Counts the requests that may hold a handler of the registry's table. The dispatcher calls a handler in
/// place, not a copy; yet POCO runs requests, and takes new ones on kept connections, after stop() has
/// emptied the table, and even after the registry has gone at exit. So what is taken out of the table lives
/// until a moment without any request in the dispatcher, which a busy server may have to wait for.
class TableUse
{
public:
    using Table = std::map<std::string, ApiHandler>;

    static TableUse& instance()
    {
        static auto* const use = new TableUse;  // never freed: requests may outlive all statics
        return *use;
    }

    /// Empties the table.
    /// @param for_good  the registry goes: requests that come from now on never look at the table.
    void clear(Table& table, bool for_good)
    {
        std::list<Table> removed(1);  // goes after the lock: the captures of a handler may do anything
        const std::lock_guard<std::mutex> lock(table_mutex);
        readable = !for_good;
        removed.front().swap(table);
        if (requests != 0 && !removed.front().empty()) retired.splice(retired.end(), removed);
    }

    /// Puts a handler into the table; what stood there is destroyed now, or when no request is there.
    void store(Table& table, std::string path, ApiHandler handler)
    {
        Table added;
        const auto entry = added.emplace(std::move(path), std::move(handler)).first;
        std::list<Table> replaced(1);  // goes after the lock
        const std::lock_guard<std::mutex> lock(table_mutex);
        if (auto former = table.extract(entry->first)) replaced.front().insert(std::move(former));
        table.merge(added);
        if (requests != 0 && !replaced.front().empty()) retired.splice(retired.end(), replaced);
    }

    /// @return the keys of the table, sorted; none when the registry has gone.
    std::vector<std::string> paths(const Table& table)
    {
        std::vector<std::string> keys;
        const std::lock_guard<std::mutex> lock(table_mutex);
        if (!readable) return keys;
        for (const auto& entry : table) keys.push_back(entry.first);
        return keys;
    }

    /// A request in the dispatcher, and its handler: null if there is none, or the registry has gone.
    class Request
    {
    public:
        Request(const Table& table, const std::string& path) : handler(instance().enter(table, path)) {}
        ~Request() { instance().leave(); }
        Request(const Request&) = delete;
        Request& operator=(const Request&) = delete;

        const ApiHandler* const handler;
    };

private:
    const ApiHandler* enter(const Table& table, const std::string& path)
    {
        const std::lock_guard<std::mutex> lock(table_mutex);
        ++requests;
        if (!readable) return nullptr;
        const auto found = table.find(path);
        return found == table.end() ? nullptr : &found->second;
    }

    void leave()
    {
        std::list<Table> dead;  // goes after the lock
        const std::lock_guard<std::mutex> lock(table_mutex);
        if (--requests == 0) dead.swap(retired);
    }

    std::mutex table_mutex;    // guards all of this and the registry's api_handlers; a leaf
    bool readable = true;      // until the registry goes
    int requests = 0;          // in the dispatcher, on all threads
    std::list<Table> retired;  // taken out of the table under running requests; the handlers stay in place
};

/// POCO 1.11 has no choice to offer and always decodes "+"; newer versions ask.
template <typename Uri>
auto queryOf(const Uri& uri, int) -> decltype(uri.getQueryParameters(true))
{
    return uri.getQueryParameters(true);
}
template <typename Uri>
auto queryOf(const Uri& uri, long) -> decltype(uri.getQueryParameters())
{
    return uri.getQueryParameters();
}

/// Whether Poco::URI, which takes its time, would make a path of the whole text and leave it as it is.
bool isPlainPath(const std::string& uri)
{
    const auto is_plain = [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
               c == '-' || c == '/';
    };
    return uri.size() > 1 && uri[0] == '/' && uri[1] != '/' && std::all_of(uri.begin(), uri.end(), is_plain);
}

ApiParams paramsOf(const Poco::URI& uri)
{
    ApiParams params;
    if (uri.getRawQuery().empty()) return params;
    // Settled: of a name that stands twice the first value stays, as emplace() has it.
    for (auto& parameter : queryOf(uri, 0))
        params.emplace(std::move(parameter.first), std::move(parameter.second));
    return params;
}

/// Runs `step`; logs a std::exception that leaves it, and lets it go on. Settled: wrapper and dispatcher both
/// do that, so that a handler's exception is logged twice if it ran in a wrapper.
template <typename Step>
void logged(Step step)
{
    try {
        step();
    } catch (const Poco::Exception& e) {
        KRO_LOG_ERROR(e.displayText());
        throw;
    } catch (const std::exception& e) {
        KRO_LOG_ERROR(e.what());
        throw;
    }
}

/// Runs `step`, which makes something of what the client has sent.
template <typename Step>
auto readingInput(HTTPServerResponse& response, Step step)
{
    try {
        return step();
    } catch (const Poco::Exception&) {
        // Safeguard: tells answerFailure() who is to blame.
        if (safeguarded(kAnswerAlways)) response.setStatusAndReason(HTTPServerResponse::HTTP_BAD_REQUEST);
        throw;
    }
}

/// Sends a whole JSON answer with its length in one piece.
void sendWhole(HTTPServerResponse& response, const std::string& json)
{
    if (!response.has(HTTPServerResponse::CONTENT_TYPE)) response.setContentType("application/json");
    const auto status = response.getStatus();
    if (status < 200 || status == HTTPServerResponse::HTTP_NO_CONTENT ||
        status == HTTPServerResponse::HTTP_NOT_MODIFIED)
    {
        response.setChunkedTransferEncoding(false);
        response.send();  // these have no body, and so no length
    } else {
        response.sendBuffer(json.data(), json.size());
    }
}

void sendCanned(HTTPServerResponse& response, const std::string& json)
{
    if (safeguarded(kAnswerAlways))
        sendWhole(response, json);  // Safeguard: with a length, so that the connection is kept
    else
        response.send() << json;
}

void sendResult(HTTPServerResponse& response, const Poco::JSON::Object& result)
{
    if (!safeguarded(kAnswerAlways)) {
        result.stringify(response.send(), 0, -1);
        return;
    }
    // Safeguard: one send instead of three. It costs a copy of the text.
    sendWhole(response, detail::jsonText(result));
}

/// The answer to a request that has thrown; with nothing of the exception in it, which may tell of the
/// inside. Called in the handler of the exception.
void answerFailure(HTTPServerRequest& request, HTTPServerResponse& response)
{
    if (response.sent()) {
        // Chunks would be ended in order, and half an answer taken for a whole one. POCO closes the
        // connection.
        auto* const received = dynamic_cast<Poco::Net::HTTPServerRequestImpl*>(&request);
        if (received != nullptr && response.getChunkedTransferEncoding()) received->socket().shutdown();
        throw;
    }
    const bool bad_input = response.getStatus() == HTTPServerResponse::HTTP_BAD_REQUEST;
    const bool keep = response.getKeepAlive();
    response.clear();  // headers that the handler meant for its own answer
    response.setDate(Poco::Timestamp());
    response.setKeepAlive(keep);
    response.setStatusAndReason(bad_input ? HTTPServerResponse::HTTP_BAD_REQUEST
                                          : HTTPServerResponse::HTTP_INTERNAL_SERVER_ERROR);
    sendWhole(response, makeJsonDefault(-1, bad_input ? "bad request" : "internal error"));
}

constexpr Poco::UInt64 kMostBodyBytes = 8u << 20;  // with kBoundedRequests

/// Whether the head leaves no doubt about where the body ends (RFC 9112 section 6.3). POCO takes the first of
/// several lengths, signs and separators in it, and no body for an encoding that it doesn't know.
bool hasClearLength(const HTTPServerRequest& request)
{
    int statements = 0;
    for (const auto& [name, value] : request) {
        if (name.find_first_of(" \t") != std::string::npos) return false;  // others trim it, POCO does not
        if (Poco::icompare(name, HTTPServerRequest::CONTENT_LENGTH) == 0) {
            ++statements;
            if (value.empty() || value.find_first_not_of("0123456789") != std::string::npos) return false;
        } else if (Poco::icompare(name, HTTPServerRequest::TRANSFER_ENCODING) == 0) {
            ++statements;
            if (Poco::icompare(value, "chunked") != 0) return false;
        }
    }
    return statements <= 1;
}

/// Appends the next `bytes` of `input`.
/// @return false if it ends before.
bool append(std::istream& input, Poco::UInt64 bytes, std::string& body)
{
    char part[16384];
    while (bytes > 0 && input) {
        input.read(part, static_cast<std::streamsize>(std::min<Poco::UInt64>(bytes, sizeof part)));
        body.append(part, static_cast<std::size_t>(input.gcount()));
        bytes -= static_cast<Poco::UInt64>(input.gcount());
    }
    return bytes == 0;
}

/// @return the next line without its CRLF; nothing if it has none, or is too long for what stands around
/// chunks.
std::optional<std::string> nextLine(std::istream& input)
{
    char line[4096];
    input.getline(line, sizeof line);
    const auto length = static_cast<std::size_t>(input.gcount());
    if (!input.good() || length < 2 || line[length - 2] != '\r') return std::nullopt;
    return std::string(line, length - 2);
}

/// Reads a body in chunks (RFC 9112 section 7.1) with all that follows it. POCO's stream of chunks ends alike
/// whether they end or break off.
/// @return 200, or what to refuse the request with.
HTTPServerResponse::HTTPStatus readChunks(std::istream& input, Poco::UInt64 most_bytes, std::string& body)
{
    while (const auto line = nextLine(input)) {
        Poco::UInt64 bytes = 0;
        const char* const line_end = line->data() + line->size();
        const auto [size_end, error] = std::from_chars(line->data(), line_end, bytes, 16);
        if (error != std::errc() ||
            (size_end != line_end && std::string_view("; \t").find(*size_end) == std::string_view::npos))
            break;
        if (bytes == 0) {
            auto trailer = nextLine(input);
            while (trailer && !trailer->empty()) trailer = nextLine(input);
            if (!trailer) break;
            return HTTPServerResponse::HTTP_OK;
        }
        if (bytes > most_bytes - body.size()) return HTTPServerResponse::HTTP_REQUESTENTITYTOOLARGE;
        if (!append(input, bytes, body) || nextLine(input) != "") break;
    }
    return HTTPServerResponse::HTTP_BAD_REQUEST;
}

/// Answers a request that no handler is to see and ends the connection, since nobody knows what stands in it.
/// That is thrown away for a moment: a client that is still sending would be cut off before it has read the
/// answer.
void refuse(Poco::Net::HTTPServerRequestImpl& request, HTTPServerResponse& response,
            HTTPServerResponse::HTTPStatus status)
{
    const bool too_large = status == HTTPServerResponse::HTTP_REQUESTENTITYTOOLARGE;
    const std::string json = makeJsonDefault(-1, too_large ? "request body too large" : "bad request");
    response.setStatusAndReason(status);
    response.setKeepAlive(false);
    response.setContentType("application/json");
    response.setContentLength(static_cast<std::streamsize>(json.size()));
    (response.send() << json).flush();
    Poco::Net::StreamSocket& socket = request.socket();
    socket.shutdownSend();
    char part[16384];
    const Poco::Timestamp end = Poco::Timestamp() + Poco::Timespan(1, 0).totalMicroseconds();
    for (Poco::Timestamp now; now < end; now.update())
        if (!socket.poll(Poco::Timespan(end - now), Poco::Net::Socket::SELECT_READ) ||
            socket.receiveBytes(part, sizeof part) <= 0)
            break;
}

/// A request whose body has been read already.
class ReadRequest : public HTTPServerRequest
{
public:
    /// @param text  the body, which must outlive this.
    ReadRequest(HTTPServerRequest& request, const std::string& text)
        : original(request), body(text.data(), static_cast<std::streamsize>(text.size()))
    {
        Poco::Net::HTTPRequest::operator=(request);
    }
    std::istream& stream() override { return body; }
    const Poco::Net::SocketAddress& clientAddress() const override { return original.clientAddress(); }
    const Poco::Net::SocketAddress& serverAddress() const override { return original.serverAddress(); }
    const Poco::Net::HTTPServerParams& serverParams() const override { return original.serverParams(); }
    HTTPServerResponse& response() const override { return original.response(); }
    bool secure() const override { return original.secure(); }

private:
    HTTPServerRequest& original;
    Poco::MemoryInputStream body;
};

void announceJson(HTTPServerResponse& response)
{
    response.setChunkedTransferEncoding(true);
    response.setContentType("application/json");
}

/// Has `fill` fill a result and sends it.
template <typename Fill>
void answerResult(HTTPServerResponse& response, Fill fill)
{
    logged([&] {
        Poco::JSON::Object result(0);
        fill(result);
        // Settled: nothing is written for an empty result. A handler that answers on its own leaves it empty.
        if (result.size() > 0) sendResult(response, result);
    });
}
}  // namespace

std::shared_ptr<WebApiBasic> WebApiBasic::instance()
{
    const std::lock_guard<std::mutex> lock(s_inst_mutex);
    if (!s_instance) s_instance.reset(new WebApiBasic);
    return s_instance;
}

WebApiBasic::~WebApiBasic()
{
    TableUse::instance().clear(api_handlers, true);
}

void WebApiBasic::start(const Poco::Net::ServerSocket& socket)
{
    if (http_server) throw Poco::LogicException();
    // Settled: the built-in paths answer nothing at all, and replace what the host has registered there.
    ApiHandler built_in = [](HTTPServerRequest&, HTTPServerResponse&, const ApiParams&) {};
    auto& use = TableUse::instance();
    // Safeguard: the list that the second one is named after.
    if (safeguarded(kAnswerAlways))
        built_in = [this](HTTPServerRequest&, HTTPServerResponse& response, const ApiParams&) {
            Poco::JSON::Array paths;
            for (const auto& path : TableUse::instance().paths(api_handlers)) paths.add(path);
            Poco::JSON::Object result(0);
            result.set("code", 0);
            result.set("data", paths);
            result.set("msg", "success");
            sendResult(response, result);
        };
    use.store(api_handlers, "/", built_in);
    use.store(api_handlers, "/index/api/getApiList", built_in);
    http_server = HttpServer::createInstance(
        socket, new Poco::Net::HTTPServerParams,
        [this](HTTPServerRequest& request, HTTPServerResponse& response) { serve(request, response); });
    http_server->start();
}

void WebApiBasic::stop()
{
    if (http_server) {
        http_server->stop();
        http_server.reset();
    }
    // Settled: whatever the state was, every registration is forgotten.
    TableUse::instance().clear(api_handlers, false);
}

void WebApiBasic::serve(HTTPServerRequest& request, HTTPServerResponse& response)
{
    if (!safeguarded(kAnswerAlways)) {
        admit(request, response);
        return;
    }
    // Safeguard: nobody waits for an answer that does not come.
    try {
        admit(request, response);
        if (!response.sent()) apiSuccess(response);  // what was asked for was done
    } catch (const std::exception&) {                // logged, if it is a handler's or its input's
        answerFailure(request, response);
    } catch (...) {
        KRO_LOG_ERROR("web api: %s, unknown exception", request.getURI());
        answerFailure(request, response);
    }
}

void WebApiBasic::admit(HTTPServerRequest& request, HTTPServerResponse& response)
{
    const unsigned bits = safeguards() & (kAnswerAlways | kBoundedRequests);
    // Another request than POCO's is a short one whose body has come, and its length is beyond doubt.
    auto* const received = bits != 0 ? dynamic_cast<Poco::Net::HTTPServerRequestImpl*>(&request) : nullptr;
    if (received == nullptr) {
        dispatch(request, response);
        return;
    }
    const bool answers = (bits & kAnswerAlways) != 0;
    if (answers && !hasClearLength(request)) {
        refuse(*received, response, HTTPServerResponse::HTTP_BAD_REQUEST);
        return;
    }
    const Poco::UInt64 most_bytes =
        (bits & kBoundedRequests) != 0 ? kMostBodyBytes : std::numeric_limits<Poco::UInt64>::max();
    // Safeguard: a handler sees no body that is too large or breaks off, and leaves none in the way of the
    // next request. It costs a copy.
    std::string body;
    auto status = HTTPServerResponse::HTTP_OK;
    if (request.getChunkedTransferEncoding()) {
        response.setKeepAlive(false);  // what the stream has read ahead of the end is lost
        Poco::Net::HTTPInputStream input(received->session());
        status = readChunks(input, most_bytes, body);
    } else if (request.hasContentLength() || request.getMethod() == HTTPServerRequest::HTTP_GET) {
        const auto bytes = static_cast<Poco::UInt64>(std::max<Poco::Int64>(request.getContentLength64(), 0));
        if (bytes > most_bytes) {
            status = HTTPServerResponse::HTTP_REQUESTENTITYTOOLARGE;
        } else if (bytes == 0 || !answers) {
            dispatch(request, response);
            return;
        } else if (!append(request.stream(), bytes, body)) {
            status = HTTPServerResponse::HTTP_BAD_REQUEST;
        }
    }  // else there is none, where POCO would read to the end of the connection
    if (status != HTTPServerResponse::HTTP_OK) {
        refuse(*received, response, status);
        return;
    }
    ReadRequest read(request, body);
    if (!request.getChunkedTransferEncoding()) {
        dispatch(read, response);
        return;
    }
    read.setKeepAlive(false);
    // The connection ends with chunks, whatever a handler makes of it.
    struct EndOfConnection
    {
        ~EndOfConnection() { of.setKeepAlive(false); }
        HTTPServerResponse& of;
    } const end{response};
    dispatch(read, response);
}

void WebApiBasic::dispatch(HTTPServerRequest& request, HTTPServerResponse& response)
{
    std::optional<Poco::URI> uri;
    // Settled: what this throws goes to POCO unlogged.
    if (!isPlainPath(request.getURI())) readingInput(response, [&] { uri.emplace(request.getURI()); });
    const TableUse::Request known(api_handlers, uri ? uri->getPath() : request.getURI());
    if (known.handler == nullptr) {
        apiNotFound(response);  // Settled: no content type is set for it
        return;
    }
    logged([&] {
        const ApiParams params = readingInput(response, [&] { return uri ? paramsOf(*uri) : ApiParams(); });
        (*known.handler)(request, response, params);
    });
}

void WebApiBasic::store(std::string uri, ApiHandler handler)
{
    // Settled: what stands under the key already is replaced without a word. A host registers its own handler
    // over a built-in one in just this way.
    TableUse::instance().store(api_handlers, std::move(uri), std::move(handler));
}

// Settled: logs nothing, unlike the others. There is no function of the host that one could look for.
void WebApiBasic::apiRegist(std::string uri)
{
    store(std::move(uri), [this](HTTPServerRequest&, HTTPServerResponse& response, const ApiParams&) {
        apiSuccess(response);
    });
}

void WebApiBasic::apiRegist(std::string uri, ApiHandler handler)
{
    KRO_LOG_INFORMATION("web api regist: %s", uri);
    store(std::move(uri), std::move(handler));
}

void WebApiBasic::apiRegist(std::string uri, ApiResultHandler handler)
{
    KRO_LOG_INFORMATION("web api regist: %s", uri);
    store(std::move(uri),
          [this, handler = std::move(handler)](HTTPServerRequest& request, HTTPServerResponse& response,
                                               const ApiParams& params) {
              announceJson(response);
              if (!handler) {
                  apiNotFound(response);
                  return;
              }
              answerResult(response,
                           [&](Poco::JSON::Object& result) { handler(request, response, params, result); });
          });
}

void WebApiBasic::apiRegist(std::string uri, ApiBodyHandler handler)
{
    KRO_LOG_INFORMATION("web api regist: %s", uri);
    store(std::move(uri),
          [this, handler = std::move(handler)](HTTPServerRequest& request, HTTPServerResponse& response,
                                               const ApiParams& params) {
              announceJson(response);
              // Settled: a body that is no JSON object is an exception, logged once by the dispatcher, and
              // not bodyNotFound().
              const auto body = readingInput(response, [&] {
                  Poco::JSON::Parser parser(new Poco::JSON::ParseHandler);
                  parser.parse(request.stream());
                  return parser.result().extract<Poco::JSON::Object::Ptr>();
              });
              answerBody(handler, request, response, params, body);
          });
}

void WebApiBasic::answerBody(const ApiBodyHandler& handler, HTTPServerRequest& request,
                             HTTPServerResponse& response, const ApiParams& params,
                             const Poco::JSON::Object::Ptr& body)
{
    // Settled: after bodyNotFound() comes apiNotFound(), or the error below: the first answer ends nothing.
    if (body.isNull()) bodyNotFound(response);
    if (!handler) {
        apiNotFound(response);
        return;
    }
    answerResult(response, [&](Poco::JSON::Object& result) {
        // Settled: a null object is answered and then still an error; *body throws
        // Poco::NullPointerException.
        handler(request, response, params, result, *body);
    });
}

// Settled: status 200, with the error in the code alone, and literal texts with blanks in them.
void WebApiBasic::apiNotFound(HTTPServerResponse& response)
{
    sendCanned(response, R"({"code": -1, "msg": "api not found"})");
}

void WebApiBasic::bodyNotFound(HTTPServerResponse& response)
{
    sendCanned(response, R"({"code": -1, "msg": "body not found or cannot be resolved to json"})");
}

void WebApiBasic::apiSuccess(HTTPServerResponse& response)
{
    sendCanned(response, R"({"code": 0, "msg": "success"})");
}

}  // namespace kro
