#ifndef KRO_HTTP_CLIENT_H
#define KRO_HTTP_CLIENT_H

#include <functional>
#include <iosfwd>
#include <memory>
#include <mutex>
#include <string>

#include <Poco/Net/HTMLForm.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/SharedPtr.h>

#include "KroApi.h"
#include "ThreadPool.h"

namespace kro
{

/// Gets the status of the answer and a stream over its body, which is valid until the callback returns. A
/// request that failed in any way (no connection, a time-out, a url that can't be parsed) is status 400 with
/// an empty stream; the reason is in the log alone. A body that the server ends early is a short stream with
/// the status that it sent, and no failure. One that a reset or a stall of 10 s cuts off depends on how it is
/// read: operations of the stream (>>, read(), std::getline) set its badbit, and may have lost the last
/// bytes; a std::istreambuf_iterator lets POCO's exception through, and if the callback does so too, it runs
/// again with 400.
using HttpResponseCallback = std::function<void(Poco::Net::HTTPResponse::HTTPStatus, std::istream&)>;

/// One-shot requests over plain HTTP/1.1 (RFC 9112), each on a connection of its own. The scheme of a url
/// only gives the port when the url has none: https://host/ is plain HTTP on port 443. A url without a path
/// is sent with an empty target, which many servers refuse: write http://host/.
///
/// Connecting may take 2 s, which a signal that interrupts it begins anew. Resolving a name comes before that
/// and is not bounded; of its addresses only the first is tried. Each send and each receive may take 10 s, so
/// that a server which trickles can hold a request for longer. A request that fails is logged at ERROR with
/// its url as given, so keep secrets out of the query.
///
/// Thread-safe: requests share no state. The doHttpRequest() overloads work on ThreadPool::defaultPool(),
/// which runs 32 tasks at a time and has no queue; the instance need not outlive them. The callback runs on
/// the thread that does the work, and may call the client. What it throws: a Poco::Exception counts as a
/// failed request, so the callback runs a second time, with 400; anything else goes to the thread pool, which
/// logs a std::exception, or to the caller of doHttpRequestSync(). An empty callback is fine for an answered
/// request; for a failed one it ends in std::bad_function_call there.
class KRO_API HttpClient
{
public:
    HttpClient();  ///< costs an idle pool of one thread
    HttpClient(const HttpClient&) = delete;
    HttpClient& operator=(const HttpClient&) = delete;

    /// One instance for all callers, made at the first call and destroyed when the process ends.
    static std::shared_ptr<HttpClient> defaultHttpClient();
    static std::shared_ptr<HttpClient> createInstance();  ///< a new one; it costs an idle pool of one thread

    /// GET without a body. Returns at once.
    /// @throws Poco::NoThreadAvailableException if the default pool is full: the callback is never called.
    void doHttpRequest(std::string url, HttpResponseCallback callback);

    /// POST of `body` as it stands, as "application/json" with its length; nobody looks whether it is JSON.
    /// Returns at once; throws as above.
    void doHttpRequest(std::string url, std::string body, HttpResponseCallback callback);

    /// POST of a form in its own encoding. Returns at once; throws as above.
    /// @param url       as above.
    /// @param form      is not copied: it must live, untouched, until the callback has returned.
    /// @param callback  as above.
    void doHttpRequest(std::string url, Poco::Net::HTMLForm& form, HttpResponseCallback callback);

    /// The POST of a text on the calling thread; returns after the callback has.
    void doHttpRequestSync(std::string url, std::string body, HttpResponseCallback callback);

    /// The GET on the calling thread, with failures left to the caller.
    /// @throws Poco::Exception for every failure, with nothing logged and the callback not called; and
    ///         whatever the callback throws.
    void do_http_request(std::string url, HttpResponseCallback callback);

private:
    // Settled: each client has a pool of its own, and requests run on the default one.
    Poco::SharedPtr<ThreadPool> thread_pool;

    static std::shared_ptr<HttpClient> s_default_instance;
    static std::mutex s_default_instance_mutex;  // guards the creation and copying of s_default_instance
};

}  // namespace kro

#endif
