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
/// POCO's session, which connects under a time-out with a third of the system calls: Linux bounds a blocking
/// connect by the send time-out of the socket, so it needs no turn to non-blocking and back, and no poll.
class Session : public HTTPClientSession
{
public:
    explicit Session(const Poco::URI& uri) : HTTPClientSession(uri.getHost(), uri.getPort()) {}

    void setTimeouts() { setTimeout(connect_timeout, io_timeout, io_timeout); }

protected:
    void connect(const Poco::Net::SocketAddress& address) override
    {
        Poco::Net::StreamSocket fresh(address.family());
        fresh.setSendTimeout(connect_timeout);
        try {
            fresh.connect(address);
        } catch (const Poco::IOException& e) {
            // EALREADY: the same, after a signal has interrupted the waiting.
            if (e.code() != EINPROGRESS && e.code() != EALREADY) throw;
            throw Poco::TimeoutException("connect timed out", address.toString());
        }
        fresh.setReceiveTimeout(io_timeout);
        fresh.setSendTimeout(io_timeout);
        fresh.setNoDelay(true);
        attachSocket(fresh);
    }

private:
    static constexpr Poco::Timespan::TimeDiff kIoTimeoutUs = 10'000'000;
    static constexpr Poco::Timespan::TimeDiff kConnectTimeoutUs = 2'000'000;
    const Poco::Timespan io_timeout{kIoTimeoutUs};
    const Poco::Timespan connect_timeout{kConnectTimeoutUs};
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
    session.setTimeouts();
    session.sendRequest(request);
    receive(session, callback);
}

void postText(const std::string& url, const std::string& body, const HttpResponseCallback& callback)
{
    const Poco::URI uri(url);
    Session session(uri);
    session.setKeepAlive(true);
    HTTPRequest request(HTTPRequest::HTTP_POST, uri.getPathAndQuery(), HTTPMessage::HTTP_1_1);
    request.setContentType("application/json");
    request.setContentLength(static_cast<std::streamsize>(body.size()));
    session.setTimeouts();
    session.sendRequest(request).write(body.data(), static_cast<std::streamsize>(body.size())).flush();
    receive(session, callback);
}

void postForm(const std::string& url, Poco::Net::HTMLForm& form, const HttpResponseCallback& callback)
{
    const Poco::URI uri(url);
    Session session(uri);
    session.setKeepAlive(true);
    session.setTimeouts();
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
