#include "WebHookBasic.h"

#include <exception>
#include <istream>
#include <utility>

#include <Poco/JSON/ParseHandler.h>
#include <Poco/JSON/Parser.h>

#include "Config.h"
#include "LoadOrder.h"

namespace kro
{

using Poco::Net::HTTPResponse;

onceToken::onceToken(const std::function<void()>& on_construct, std::function<void()> at_end)
    : on_destruct(std::move(at_end))
{
    if (on_construct) on_construct();
}

onceToken::~onceToken()
{
    if (on_destruct) on_destruct();
}

namespace Hook
{
// Settled: the six that nobody here reads stand in the file all the same, for hosts and operators who look
// for them.
KRO_BUILT_FIRST const std::string kEnable = "hook.enable";
KRO_BUILT_FIRST const std::string kTimeoutSec = "hook.timeoutSec";
KRO_BUILT_FIRST const std::string kAdminParams = "hook.admin_params";
KRO_BUILT_FIRST const std::string kAliveInterval = "hook.alive_interval";
KRO_BUILT_FIRST const std::string kRetry = "hook.retry";
KRO_BUILT_FIRST const std::string kRetryDelay = "hook.retry_delay";
KRO_BUILT_FIRST const std::string kOnServerStarted = "hook.on_server_started";
KRO_BUILT_FIRST const std::string kOnServerKeepalive = "hook.on_server_keepalive";

// Stands behind its keys in this file, and so is built after them. Of other files it needs configInstance()
// alone, which rests on a pointer that no initialiser has to set. That Config.cpp refers to the token is what
// makes a static archive give this file to every host that has a configuration.
KRO_BUILT_FIRST const onceToken token([] {
    auto& config = *configInstance();
    config.setBool(kEnable, false);
    config.setInt(kTimeoutSec, 10);
    config.setString(kAdminParams, "secret=7d1e4a90-2c36-4f58-9b17-e05ac3d86f21");
    config.setInt(kAliveInterval, 30);
    config.setInt(kRetry, 1);
    config.setInt(kRetryDelay, 3);
    config.setString(kOnServerStarted, "http://127.0.0.1/index/api/on_server_started");
    config.setString(kOnServerKeepalive, "http://127.0.0.1/index/api/on_server_keepalive");
});
}  // namespace Hook

std::shared_ptr<WebHookBasic> WebHookBasic::s_default_instance;
std::mutex WebHookBasic::s_default_instance_mutex;

namespace
{
bool readEnable()
{
    return configInstance()->getBool(Hook::kEnable, false);
}

/// @return never freed: the default reporter's timer may tick while the statics of functions are destroyed.
const std::string& readServerStarted()
{
    return *new std::string(configInstance()->getString(Hook::kOnServerStarted, ""));
}

void ignoreAnswer(HTTPResponse::HTTPStatus, Poco::JSON::Object&) {}
}  // namespace

WebHookBasic::WebHookBasic() : http_client(HttpClient::createInstance()) {}

WebHookBasic::~WebHookBasic() = default;  // the timer goes first, which stops it, then the client

std::shared_ptr<WebHookBasic> WebHookBasic::defaultWebHook()
{
    const std::lock_guard<std::mutex> lock(s_default_instance_mutex);
    if (!s_default_instance) s_default_instance = createInstance();
    return s_default_instance;
}

std::shared_ptr<WebHookBasic> WebHookBasic::createInstance()
{
    return std::make_shared<WebHookBasic>();
}

// Settled: each function keeps what it read at its first call, apart from the others.
void WebHookBasic::reportServerStarted()
{
    static const bool hook_enable = readEnable();
    static const std::string& hook_server_started = readServerStarted();
    if (!hook_enable || hook_server_started.empty()) return;
    doHttpRequest(hook_server_started, ignoreAnswer);
}

void WebHookBasic::reportServerKeepalive()
{
    static const bool hook_enable = readEnable();
    if (!hook_enable) return;
    constexpr long kPeriodMs = 10'000;  // Settled: a constant; "hook.alive_interval" changes nothing
    keepalive_timer = new Poco::Timer(0, kPeriodMs);  // releases an earlier one, which stops it
    keepalive_timer->start(Poco::TimerCallback<WebHookBasic>(*this, &WebHookBasic::onTimer));
}

void WebHookBasic::onTimer(Poco::Timer&)
{
    static const bool hook_enable = readEnable();
    // Settled: the tick goes to the url of the start; that of "hook.on_server_keepalive" is never requested.
    static const std::string& hook_server_started = readServerStarted();
    if (!hook_enable || hook_server_started.empty()) return;
    doHttpRequest(hook_server_started, ignoreAnswer);
}

void WebHookBasic::doHttpRequest(std::string url, HookResponseCallback callback)
{
    http_client->doHttpRequest(std::move(url), [callback = std::move(callback)](
                                                   HTTPResponse::HTTPStatus status, std::istream& body) {
        try {
            Poco::JSON::Parser parser(new Poco::JSON::ParseHandler);
            parser.parse(body);
            auto object = parser.result().extract<Poco::JSON::Object::Ptr>();
            Poco::JSON::Object empty;
            if (callback) callback(status, object.isNull() ? empty : *object);
        } catch (const std::exception&) {
            // Settled: also for what the callback itself threw, which so runs a second time; and an empty
            // one is not looked for.
            Poco::JSON::Object empty;
            callback(status, empty);
        }
    });
}

}  // namespace kro
