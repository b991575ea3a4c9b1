#include "WebApiBasic.h"

#include <atomic>
#include <exception>
#include <list>
#include <thread>
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
/// Who uses the table of the registry. The dispatcher reads the table without a lock, and calls a handler in
/// place; yet POCO runs requests, and takes new ones on kept connections, after stop() has emptied the table,
/// and even after the registry has gone at exit. So a request counts itself before it looks anything up.
///
/// All counters are sequentially consistent: a request either sees that the table is closed, or is seen.
class TableUse
{
public:
    using Table = std::map<std::string, ApiHandler>;

    static TableUse& instance()
    {
        static auto* const use = new TableUse;  // never freed: requests may outlive all statics
        return *use;
    }

    void open() { readable = true; }

    /// Waits for the look-ups of this moment (never for a handler), after which the table is the caller's.
    void close()
    {
        readable = false;
        while (lookups != 0) std::this_thread::yield();
    }

    /// Orders the caller's writes to the table after the look-ups so far and before those to come, as the
    /// language wants it of a registration that no request meets. It waits for nobody.
    void settle() { lookups.fetch_add(0); }

    /// Destroys `table`: now, or with the last request in flight, which may run a handler that stands in it.
    void retire(Table table)
    {
        {
            const std::lock_guard<std::mutex> lock(retired_mutex);
            retired.push_back(std::move(table));  // the handlers stay where they are in memory
        }
        any_retired = true;
        releaseRetired();
    }

    /// A request, from its arrival at the dispatcher to its end.
    class Request
    {
    public:
        explicit Request(TableUse& table_use) : use(table_use) { ++use.requests; }
        ~Request()
        {
            if (--use.requests == 0 && use.any_retired) use.releaseRetired();
        }
        Request(const Request&) = delete;
        Request& operator=(const Request&) = delete;

    private:
        TableUse& use;
    };

    /// A look-up within a request.
    class LookUp
    {
    public:
        explicit LookUp(TableUse& table_use) : use(table_use) { ++use.lookups; }
        ~LookUp() { --use.lookups; }
        LookUp(const LookUp&) = delete;
        LookUp& operator=(const LookUp&) = delete;
        bool allowed() const { return use.readable; }

    private:
        TableUse& use;
    };

private:
    void releaseRetired()
    {
        std::list<Table> released;  // destroyed after the lock: a handler's captures may do anything
        const std::lock_guard<std::mutex> lock(retired_mutex);
        if (requests != 0) return;
        released.swap(retired);
        any_retired = false;
    }

    std::atomic<bool> readable{false};     // between start() and stop()
    std::atomic<int> lookups{0};           // requests that may be reading the table at this moment
    std::atomic<int> requests{0};          // requests that may hold a handler of the table
    std::atomic<bool> any_retired{false};  // spares the others the lock; written after, or under, the lock
    std::mutex retired_mutex;              // guards retired; a leaf
    std::list<Table> retired;              // taken away by stop() under running requests
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
    retireTable();
}

void WebApiBasic::start(const Poco::Net::ServerSocket& socket)
{
    if (http_server) throw Poco::LogicException();
    // Settled: the built-in paths answer nothing at all, and replace what the host has registered there.
    const ApiHandler answerless = [](HTTPServerRequest&, HTTPServerResponse&, const ApiParams&) {};
    api_handlers["/"] = answerless;
    api_handlers["/index/api/getApiList"] = answerless;
    http_server = HttpServer::createInstance(
        socket, new Poco::Net::HTTPServerParams,
        [this](HTTPServerRequest& request, HTTPServerResponse& response) { dispatch(request, response); });
    TableUse::instance().open();
    http_server->start();
}

void WebApiBasic::stop()
{
    if (http_server) {
        http_server->stop();
        http_server.reset();
    }
    retireTable();  // Settled: whatever the state was, every registration is forgotten
}

void WebApiBasic::retireTable()
{
    TableUse::instance().close();
    TableUse::Table table;
    table.swap(api_handlers);
    TableUse::instance().retire(std::move(table));
}

const ApiHandler* WebApiBasic::findHandler(const std::string& path) const
{
    const TableUse::LookUp look_up(TableUse::instance());
    if (!look_up.allowed()) return nullptr;  // on a kept connection after stop(): the registry may be gone
    const auto found = api_handlers.find(path);
    return found == api_handlers.end() ? nullptr : &found->second;
}

void WebApiBasic::dispatch(HTTPServerRequest& request, HTTPServerResponse& response)
{
    const TableUse::Request counted(TableUse::instance());
    const Poco::URI uri(request.getURI());  // Settled: what this throws goes to POCO unlogged
    const ApiHandler* const handler = findHandler(uri.getPath());
    if (handler == nullptr) {
        apiNotFound(response);
        return;
    }
    logged([&] { (*handler)(request, response, paramsOf(uri)); });
}

void WebApiBasic::store(std::string uri, ApiHandler handler)
{
    TableUse::Table replaced;
    TableUse::instance().settle();
    if (auto entry = api_handlers.extract(uri)) replaced.insert(std::move(entry));
    api_handlers.emplace(std::move(uri), std::move(handler));
    TableUse::instance().settle();
    if (!replaced.empty()) TableUse::instance().retire(std::move(replaced));
}

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
