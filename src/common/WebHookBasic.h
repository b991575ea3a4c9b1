#ifndef KRO_WEB_HOOK_BASIC_H
#define KRO_WEB_HOOK_BASIC_H

#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include <Poco/JSON/Object.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/SharedPtr.h>
#include <Poco/Timer.h>

#include "HttpClient.h"
#include "KroApi.h"

namespace kro
{

/// Runs one function when it is made and another when it is destroyed.
class KRO_API onceToken
{
public:
    /// @param on_construct  run at once; its exceptions pass on. May be empty.
    /// @param at_end        kept, and run by the destructor. May be empty; must not throw.
    explicit onceToken(const std::function<void()>& on_construct, std::function<void()> at_end = {});
    ~onceToken();
    onceToken(const onceToken&) = delete;
    onceToken& operator=(const onceToken&) = delete;

private:
    std::function<void()> on_destruct;
};

/// Keys of the web hook. Their defaults stand in configInstance() before any call of a host.
/// The library reads kEnable and kOnServerStarted; the others are there for the host.
namespace Hook
{
extern KRO_API const std::string kEnable;           ///< "hook.enable", a bool, default false
extern KRO_API const std::string kTimeoutSec;       ///< "hook.timeoutSec", seconds, default 10
extern KRO_API const std::string kAdminParams;      ///< "hook.admin_params", "secret=" and a token
extern KRO_API const std::string kAliveInterval;    ///< "hook.alive_interval", seconds, default 30
extern KRO_API const std::string kRetry;            ///< "hook.retry", default 1
extern KRO_API const std::string kRetryDelay;       ///< "hook.retry_delay", seconds, default 3
extern KRO_API const std::string kOnServerStarted;  ///< "hook.on_server_started", the url of both reports
extern KRO_API const std::string
    kOnServerKeepalive;                ///< "hook.on_server_keepalive", a url that is never used
extern KRO_API const onceToken token;  ///< writes the defaults while the library loads
}  // namespace Hook

/// Gets the status of the answer and its body, an empty object unless the body is a JSON object. Runs on a
/// thread of the default pool. If it throws a std::exception it runs a second time, with the same status and
/// an empty object. Empty, it is fine for an answer that is a JSON object; any other ends in
/// std::bad_function_call there. If the second call throws a Poco::Exception, that counts as a failed
/// request, and a third call has status 400 and an empty object.
using HookResponseCallback = std::function<void(Poco::Net::HTTPResponse::HTTPStatus, Poco::JSON::Object&)>;

/// Tells an outside endpoint that the service has started and that it is alive: GET requests whose answers
/// are dropped, and whose failures only show as the HTTP client's log line. Nothing is retried.
///
/// Each function reads its settings once, at its first call in the process, and keeps them: load the
/// configuration first. Call the reports from one thread. A "hook.enable" that is no bool makes both reports
/// throw POCO's Poco::SyntaxException, at each call.
class KRO_API WebHookBasic
{
public:
    WebHookBasic();   ///< makes an HTTP client of its own, and no timer
    ~WebHookBasic();  ///< stops the reports, and waits for a tick that is under way
    WebHookBasic(const WebHookBasic&) = delete;
    WebHookBasic& operator=(const WebHookBasic&) = delete;

    /// One reporter for all callers, made at the first call and destroyed when the process ends.
    static std::shared_ptr<WebHookBasic> defaultWebHook();
    static std::shared_ptr<WebHookBasic> createInstance();  ///< a new one

    /// Requests the url of "hook.on_server_started", if "hook.enable" is true and the url is not empty.
    /// Returns at once.
    /// @throws Poco::NoThreadAvailableException if the default pool is full.
    void reportServerStarted();

    /// Makes the same request (to the same url) now and every 10 s from now on, if "hook.enable" is true,
    /// until the reporter is destroyed. A further call begins anew, with a request at once. The ticks run on
    /// a thread of Poco::ThreadPool::defaultPool() and do not wait for earlier requests.
    /// @throws Poco::NoThreadAvailableException if POCO's default pool is full (16 threads, which it shares
    ///         with the connections of POCO's HTTP servers): call it before the server gets busy.
    void reportServerKeepalive();

    void onTimer(Poco::Timer& timer);  ///< one tick; `timer` is not looked at

    /// GET of `url` as it stands, through the HTTP client. Returns at once.
    /// @throws Poco::NoThreadAvailableException if the default pool is full: the callback is never called.
    void doHttpRequest(std::string url, HookResponseCallback callback);

private:
    friend struct WebHookBasicTestAccess;

    std::shared_ptr<HttpClient> http_client;
    Poco::SharedPtr<Poco::Timer> keepalive_timer;  // null until reportServerKeepalive()

    static std::shared_ptr<WebHookBasic> s_default_instance;
    static std::mutex s_default_instance_mutex;  // guards the creation and copying of s_default_instance
};

}  // namespace kro

#endif
