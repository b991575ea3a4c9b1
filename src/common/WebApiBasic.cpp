#include "WebApiBasic.h"

#include <exception>
#include <list>
#include <utility>

#include <Poco/Exception.h>
#include <Poco/JSON/ParseHandler.h>
#include <Poco/JSON/Parser.h>
#include <Poco/URI.h>

#include "Logger.h"

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
/// until no request is left that was there before.
class TableUse
{
public:
    using Table = std::map<std::string, ApiHandler>;

    static TableUse& instance()
    {
        static auto* const use = new TableUse;  // never freed: requests may outlive all statics
        return *use;
    }

    void open()
    {
        const std::lock_guard<std::mutex> lock(table_mutex);
        readable = true;
    }

    /// Empties the table. Requests that come from now on find nothing.
    void close(Table& table)
    {
        std::list<Table> removed(1);  // goes after the lock: the captures of a handler may do anything
        const std::lock_guard<std::mutex> lock(table_mutex);
        readable = false;
        removed.front().swap(table);
        if (requests != 0 && !removed.front().empty()) retired.splice(retired.end(), removed);
    }

    /// Puts a handler into the table; what stood there is destroyed now, or with the last request.
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

    /// A request in the dispatcher, and its handler: null if there is none, or after close(), when the
    /// registry may be gone.
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
    bool readable = false;     // between start() and stop()
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
        if (result.size() > 0) result.stringify(response.send(), 0, -1);
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
    TableUse::instance().close(api_handlers);
}

void WebApiBasic::start(const Poco::Net::ServerSocket& socket)
{
    if (http_server) throw Poco::LogicException();
    // Settled: the built-in paths answer nothing at all, and replace what the host has registered there.
    const ApiHandler answerless = [](HTTPServerRequest&, HTTPServerResponse&, const ApiParams&) {};
    auto& use = TableUse::instance();
    use.store(api_handlers, "/", answerless);
    use.store(api_handlers, "/index/api/getApiList", answerless);
    http_server = HttpServer::createInstance(
        socket, new Poco::Net::HTTPServerParams,
        [this](HTTPServerRequest& request, HTTPServerResponse& response) { dispatch(request, response); });
    use.open();
    http_server->start();
}

void WebApiBasic::stop()
{
    if (http_server) {
        http_server->stop();
        http_server.reset();
    }
    // Settled: whatever the state was, every registration is forgotten.
    TableUse::instance().close(api_handlers);
}

void WebApiBasic::dispatch(HTTPServerRequest& request, HTTPServerResponse& response)
{
    const Poco::URI uri(request.getURI());  // Settled: what this throws goes to POCO unlogged
    const TableUse::Request known(api_handlers, uri.getPath());
    if (known.handler == nullptr) {
        apiNotFound(response);  // Settled: no content type is set for it
        return;
    }
    logged([&] { (*known.handler)(request, response, paramsOf(uri)); });
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
    store(std::move(uri), [this, handler = std::move(handler)](HTTPServerRequest& request,
                                                               HTTPServerResponse& response,
                                                               const ApiParams& params) {
        announceJson(response);
        // Settled: a body that is no JSON object is an exception, logged once by the dispatcher, and not
        // bodyNotFound().
        Poco::JSON::Parser parser(new Poco::JSON::ParseHandler);
        parser.parse(request.stream());
        answerBody(handler, request, response, params, parser.result().extract<Poco::JSON::Object::Ptr>());
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
    response.send() << R"({"code": -1, "msg": "api not found"})";
}

void WebApiBasic::bodyNotFound(HTTPServerResponse& response)
{
    response.send() << R"({"code": -1, "msg": "body not found or cannot be resolved to json"})";
}

void WebApiBasic::apiSuccess(HTTPServerResponse& response)
{
    response.send() << R"({"code": 0, "msg": "success"})";
}

}  // namespace kro
