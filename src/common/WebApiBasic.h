#ifndef KRO_WEB_API_BASIC_H
#define KRO_WEB_API_BASIC_H

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include <Poco/JSON/Object.h>
#include <Poco/Net/HTTPServerRequest.h>
#include <Poco/Net/HTTPServerResponse.h>
#include <Poco/Net/ServerSocket.h>

#include "HttpServer.h"
#include "KroApi.h"

namespace kro
{

/// The decoded query of one request, name to value; of a name that stands twice, the first value. "+" is a
/// blank.
using ApiParams = std::unordered_map<std::string, std::string>;

/// Writes the answer itself. It must write one: a client whose request gets none waits.
using ApiHandler =
    std::function<void(Poco::Net::HTTPServerRequest&, Poco::Net::HTTPServerResponse&, const ApiParams&)>;

/// Fills `result`, which is sent when the handler has returned: chunked, "application/json", in one line, the
/// members sorted by key. An empty result sends nothing: then the handler must have answered itself, and one
/// that has answered must leave the result empty.
using ApiResultHandler = std::function<void(Poco::Net::HTTPServerRequest&, Poco::Net::HTTPServerResponse&,
                                            const ApiParams&, Poco::JSON::Object& result)>;

/// As above, with the body of the request, which is then a JSON object: any other body is an error (status
/// 500, or a closed connection) and never reaches the handler.
using ApiBodyHandler =
    std::function<void(Poco::Net::HTTPServerRequest&, Poco::Net::HTTPServerResponse&, const ApiParams&,
                       Poco::JSON::Object& result, const Poco::JSON::Object& body)>;

/// The process's registry of web APIs: a table from path to handler, and the one server whose requests go
/// through it. A request's path is percent-decoded and must equal a key byte for byte; the method plays no
/// part. A path that is not in the table gets apiNotFound().
///
/// Handlers run on POCO's server threads, several at once, also the same one. A std::exception is logged at
/// ERROR (by a wrapper and again by the dispatcher); a Poco::Exception is then answered with 500 if nothing
/// was sent yet, and anything else closes the connection without an answer. The server goes on in each case.
/// POCO puts no limit on a body, and serves at most 16 connections at a time: the rest waits.
///
/// Of a body that nobody has read, POCO takes what is left for the next request of the connection. So a
/// handler that does not want a body either reads it or calls response.setKeepAlive(false) before it answers.
///
/// With kAnswerAlways every request whose head POCO can read is answered in JSON with its length, in one
/// send: an exception with 400 if the URI, the query or a JSON body can't be read, and 500 otherwise, "code"
/// being -1 in either case; a handler that has written nothing with apiSuccess(). A body is read before the
/// handler runs, so nothing of it is left. One that breaks off, or whose head leaves its end in doubt, gets
/// 400 and no handler; that ends the connection, as chunks do, and an exception that comes after an answer
/// has begun. (A head that POCO can't read gets its bare 400; with a length that is no number, nothing but
/// the end.) With kBoundedRequests a body of more than 8 MiB gets 413 before a handler sees it, and ends the
/// connection; a chunked one up to that is read before the handler runs, and answered likewise if it breaks
/// off.
///
/// instance() and apiRegist() may be called from any thread, while requests are served, too. start() and
/// stop() belong to one thread at a time.
class KRO_API WebApiBasic
{
public:
    static std::shared_ptr<WebApiBasic> instance();  ///< the one registry; made stopped, with an empty table
    ~WebApiBasic();
    WebApiBasic(const WebApiBasic&) = delete;
    WebApiBasic& operator=(const WebApiBasic&) = delete;

    /// Serves `socket` through the table, with POCO's default parameters.
    /// Replaces what is registered under "/" and "/index/api/getApiList" by handlers that answer nothing: a
    /// client that asks for these waits. A host with something to say there registers it after start(). With
    /// kAnswerAlways both list all paths: {"code":0,"data":["/",...],"msg":"success"}.
    /// @param socket  bound and listening; it stays the caller's to close after stop().
    /// @throws Poco::LogicException if started already, with nothing changed.
    void start(const Poco::Net::ServerSocket& socket);

    /// Ends accepting and forgets every registration, also when the registry was not started. Requests in
    /// flight go on to their answer; connections that are kept are still served, by what is registered from
    /// now on. A handler is destroyed here, or at the first moment without a request in flight, on the last
    /// one's thread. May be called from a handler. POCO closes the connections that wait for a thread, up to
    /// 64, without an answer.
    void stop();

    /// Registers under the key as given, in place of what stood there, which is destroyed as by stop(). This
    /// form answers apiSuccess().
    /// @param uri  a path, decoded and without a query, such as "/index/api/version".
    void apiRegist(std::string uri);
    /// As above.
    /// @param uri      likewise.
    /// @param handler  answers by itself; an empty one is an error for each request.
    void apiRegist(std::string uri, ApiHandler handler);
    /// As above.
    /// @param uri      likewise.
    /// @param handler  fills the result; an empty one answers apiNotFound().
    void apiRegist(std::string uri, ApiResultHandler handler);
    /// As above, for requests with a body.
    /// @param uri      likewise.
    /// @param handler  fills the result; an empty one answers apiNotFound().
    void apiRegist(std::string uri, ApiBodyHandler handler);

    /// The canned answers, for handlers too. Status, content type and transfer encoding stay as they are: by
    /// default 200, none, and neither a length nor chunks, so that the connection ends with the answer. With
    /// kAnswerAlways they have a length, are "application/json" by default, and keep the connection.
    void apiNotFound(Poco::Net::HTTPServerResponse& response);
    void bodyNotFound(Poco::Net::HTTPServerResponse& response);  ///< as above
    void apiSuccess(Poco::Net::HTTPServerResponse& response);    ///< as above

private:
    WebApiBasic() = default;
    // The steps of a request: serve() answers in any case and admit() reads or refuses the body, if they are
    // to.
    void serve(Poco::Net::HTTPServerRequest& request, Poco::Net::HTTPServerResponse& response);
    void admit(Poco::Net::HTTPServerRequest& request, Poco::Net::HTTPServerResponse& response);
    void dispatch(Poco::Net::HTTPServerRequest& request, Poco::Net::HTTPServerResponse& response);
    void store(std::string uri, ApiHandler handler);
    void answerBody(const ApiBodyHandler& handler, Poco::Net::HTTPServerRequest& request,
                    Poco::Net::HTTPServerResponse& response, const ApiParams& params,
                    const Poco::JSON::Object::Ptr& body);

    friend struct WebApiBasicTestAccess;

    std::shared_ptr<HttpServer> http_server;         // null while stopped
    std::map<std::string, ApiHandler> api_handlers;  // path to handler; guarded by TableUse's lock

    static std::shared_ptr<WebApiBasic> s_instance;
    static std::mutex s_inst_mutex;  // guards the creation and copying of s_instance
};

}  // namespace kro

#endif
