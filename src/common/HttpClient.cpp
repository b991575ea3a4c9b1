#include "HttpClient.h"

#include <cerrno>
#include <istream>
#include <ostream>
#include <utility>

#include <Poco/Exception.h>
#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPMessage.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/StreamSocket.h>
#include <Poco/NullStream.h>
#include <Poco/Timespan.h>
#include <Poco/URI.h>

#include "Logger.h"

namespace kro
{

using Poco::Net::HTTPClientSession;
using Poco::Net::HTTPMessage;
using Poco::Net::HTTPRequest;
using Poco::Net::HTTPResponse;

std::shared_ptr<HttpClient> HttpClient::s_default_instance;
std::mutex HttpClient::s_default_instance_mutex;

namespace
{
/// POCO's session with a connect of its own. POCO bounds a connect by making the socket non-blocking,
/// polling, and making it blocking again; Linux bounds a blocking one by the socket's send time-out. That
/// saves a request nine system calls, and brings it close to a raw socket without any time-out.
///
/// Settled: a scheme gives a url without a port its well-known one, and is not looked at otherwise.
class Session : public HTTPClientSession
{
public:
    explicit Session(const Poco::URI& uri) : HTTPClientSession(uri.getHost(), uri.getPort()) {}

protected:
    /// Takes the place of the one reader of setTimeout()'s values, so nobody sets these.
    void connect(const Poco::Net::SocketAddress& address) override
    {
        constexpr Poco::Timespan::TimeDiff kIoTimeoutUs = 10'000'000;
        constexpr Poco::Timespan::TimeDiff kConnectTimeoutUs = 2'000'000;
        Poco::Net::StreamSocket fresh(address.family());
        fresh.setSendTimeout(kConnectTimeoutUs);
        try {
            fresh.connect(address);
        } catch (const Poco::IOException& e) {
            // EALREADY: after a signal has interrupted the waiting, POCO connects again, for another 2 s.
            if (e.code() != EINPROGRESS && e.code() != EALREADY) throw;
            throw Poco::TimeoutException("connect timed out", address.toString());
        }
        fresh.setReceiveTimeout(kIoTimeoutUs);
        fresh.setSendTimeout(kIoTimeoutUs);
        fresh.setNoDelay(true);
        attachSocket(fresh);
    }
};

void receive(HTTPClientSession& session, const HttpResponseCallback& callback)
{
    HTTPResponse response;
    std::istream& body = session.receiveResponse(response);
    if (callback) callback(response.getStatus(), body);
}

/// Runs one request, callback included, and turns POCO's exceptions into status 400.
template <typename Request>
void guarded(const std::string& url, const HttpResponseCallback& callback, Request request)
{
    try {
        request();
    } catch (const Poco::Exception& e) {
        KRO_LOG_ERROR("requst url '%s' exception: %s", url, e.displayText());
        Poco::NullInputStream empty;
        // Settled: an empty callback is not looked for here, and ends in std::bad_function_call. A callback
        // that threw a Poco::Exception itself runs a second time.
        callback(HTTPResponse::HTTP_BAD_REQUEST, empty);
    }
}

void get(const std::string& url, const HttpResponseCallback& callback)
{
    const Poco::URI uri(url);
    Session session(uri);
    HTTPRequest request(HTTPRequest::HTTP_GET, uri.getPathAndQuery(), HTTPMessage::HTTP_1_1);
    session.sendRequest(request);
    receive(session, callback);
}

void postText(const std::string& url, const std::string& body, const HttpResponseCallback& callback)
{
    const Poco::URI uri(url);
    Session session(uri);
    session.setKeepAlive(true);  // Settled: keeps "Close" off the wire, and no more
    HTTPRequest request(HTTPRequest::HTTP_POST, uri.getPathAndQuery(), HTTPMessage::HTTP_1_1);
    request.setContentType("application/json");
    request.setContentLength(static_cast<std::streamsize>(body.size()));
    session.sendRequest(request).write(body.data(), static_cast<std::streamsize>(body.size())).flush();
    receive(session, callback);
}

void postForm(const std::string& url, Poco::Net::HTMLForm& form, const HttpResponseCallback& callback)
{
    const Poco::URI uri(url);
    Session session(uri);
    session.setKeepAlive(true);  // Settled: as above
    HTTPRequest request(HTTPRequest::HTTP_POST, uri.getPathAndQuery(), HTTPMessage::HTTP_1_1);
    request.setContentType(form.getEncoding());
    form.prepareSubmit(request, 0);
    form.write(session.sendRequest(request));
    receive(session, callback);
}
}  // namespace

HttpClient::HttpClient() : thread_pool(new ThreadPool(1, 32, 60, 0)) {}

std::shared_ptr<HttpClient> HttpClient::defaultHttpClient()
{
    const std::lock_guard<std::mutex> lock(s_default_instance_mutex);
    if (!s_default_instance) s_default_instance = createInstance();
    return s_default_instance;
}

std::shared_ptr<HttpClient> HttpClient::createInstance()
{
    return std::make_shared<HttpClient>();
}

void HttpClient::doHttpRequest(std::string url, HttpResponseCallback callback)
{
    // The task holds nothing of the client, which may be gone by the time that it runs.
    ThreadPool::defaultPool().start([url = std::move(url), callback = std::move(callback)] {
        guarded(url, callback, [&] { get(url, callback); });
    });
}

void HttpClient::doHttpRequest(std::string url, std::string body, HttpResponseCallback callback)
{
    ThreadPool::defaultPool().start(
        [url = std::move(url), body = std::move(body), callback = std::move(callback)] {
            guarded(url, callback, [&] { postText(url, body, callback); });
        });
}

void HttpClient::doHttpRequest(std::string url, Poco::Net::HTMLForm& form, HttpResponseCallback callback)
{
    // Settled: the form goes by reference. It may hold streams, which can't be copied.
    ThreadPool::defaultPool().start([url = std::move(url), &form, callback = std::move(callback)] {
        guarded(url, callback, [&] { postForm(url, form, callback); });
    });
}

void HttpClient::doHttpRequestSync(std::string url, std::string body, HttpResponseCallback callback)
{
    guarded(url, callback, [&] { postText(url, body, callback); });
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): every operation of the interface takes by value
void HttpClient::do_http_request(std::string url, HttpResponseCallback callback)
{
    get(url, callback);
}

}  // namespace kro
