#include "support/FakePaho.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <future>
#include <memory>
#include <thread>
#include <utility>

namespace kro::test
{
using PahoLock = std::lock_guard<std::recursive_mutex>;

FakePaho& FakePaho::instance()
{
    static auto* const fake = new FakePaho;  // never freed: its thread runs to the end of the process
    return *fake;
}

FakePaho::FakePaho()
{
    std::thread([this] {
        for (;;) {
            std::unique_lock<std::mutex> lock(mutex);
            posted.wait(lock, [this] { return !events.empty(); });
            const auto event = std::move(events.front());
            events.pop_front();
            lock.unlock();
            const PahoLock paho_lock(paho_mutex);
            event();
        }
    }).detach();
}

void FakePaho::post(std::function<void()> callback, bool wait)
{
    const auto done = std::make_shared<std::promise<void>>();
    {
        const std::lock_guard<std::mutex> lock(mutex);
        events.push_back([callback = std::move(callback), done] {
            callback();
            done->set_value();
        });
    }
    posted.notify_one();
    if (wait) done->get_future().wait();
}

void FakePaho::fire(std::function<void(Handle&)> callback, bool wait)
{
    post(
        [this, callback = std::move(callback)] {
            const auto found = handles.find(newest);
            if (found != handles.end() && found->second.arrived != nullptr) callback(found->second);
        },
        wait);
}

void FakePaho::reset()
{
    post([] {}, true);
    calls.clear();
    unfreed = 0;
    answer_connects = answer_disconnects = true;
    const std::lock_guard<std::mutex> lock(mutex);
    codes.clear();
    hooks.clear();
}

void FakePaho::script(const std::string& function, int code)
{
    const std::lock_guard<std::mutex> lock(mutex);
    codes[function].push_back(code);
}

void FakePaho::onCall(const std::string& function, std::function<void()> hook)
{
    const std::lock_guard<std::mutex> lock(mutex);
    hooks[function] = std::move(hook);
}

int FakePaho::record(const std::string& function, const std::string& arguments)
{
    std::unique_lock<std::mutex> lock(mutex);
    const auto hook = hooks[function];
    auto& scripted = codes[function];
    const int code = scripted.empty() ? 0 : scripted.front();
    if (!scripted.empty()) scripted.pop_front();
    lock.unlock();
    // After its code is taken: a test that has seen the call may script the next one's.
    calls.add(arguments.empty() ? function : function + " " + arguments);
    if (hook) hook();
    return code;
}

FakePaho::Handle& FakePaho::living(MQTTAsync handle)
{
    const auto found = handles.find(handle);
    if (found != handles.end()) return found->second;
    std::fprintf(stderr, "a call with a handle that is null or destroyed\n");  // the real one would touch it
    std::abort();
}

void FakePaho::connectSucceeds()
{
    fire([](Handle& handle) { handle.connect.onSuccess(handle.connect.context, nullptr); });
}

void FakePaho::connectFails(MQTTAsync_failureData* data)
{
    fire([data](Handle& handle) { handle.connect.onFailure(handle.connect.context, data); });
}

void FakePaho::loseConnection(const char* cause, bool wait)
{
    fire([cause](Handle& handle) { handle.lost(handle.context, const_cast<char*>(cause)); }, wait);
}

void FakePaho::refuseSubscription(const std::string& topic)
{
    fire([topic](Handle& handle) {
        const MQTTAsync_responseOptions& options = handle.subscribed[topic];
        MQTTAsync_failureData data{};
        data.code = 128;
        if (options.onFailure != nullptr) options.onFailure(options.context, &data);
    });
}

void FakePaho::deliver(const std::string& topic, const std::string& payload, int qos)
{
    fire([=](Handle& handle) {
        auto* const message = static_cast<MQTTAsync_message*>(std::malloc(sizeof(MQTTAsync_message)));
        *message = MQTTAsync_message_initializer;
        message->payload = std::malloc(payload.size());
        std::memcpy(message->payload, payload.data(), payload.size());
        message->payloadlen = static_cast<int>(payload.size());
        message->qos = qos;
        unfreed += 2;
        handle.arrived(handle.context, strdup(topic.c_str()), 0, message);
    });
}

}  // namespace kro::test

using kro::test::FakePaho;
using kro::test::PahoLock;

static FakePaho& fake()
{
    return FakePaho::instance();
}

extern "C" {
int MQTTAsync_create(MQTTAsync* handle, const char* uri, const char* id, int persistence, void* /*context*/)
{
    const int code = fake().record("create", std::string(uri) + " " + id + " " + std::to_string(persistence));
    if (code != 0) return code;
    const PahoLock lock(fake().paho_mutex);
    static std::size_t made = 0;
    *handle = fake().newest = reinterpret_cast<MQTTAsync>(++made);
    fake().handles[*handle];
    return 0;
}

int MQTTAsync_setCallbacks(MQTTAsync handle, void* context, MQTTAsync_connectionLost* lost,
                           MQTTAsync_messageArrived* arrived, MQTTAsync_deliveryComplete* /*delivered*/)
{
    const int code = fake().record("setCallbacks", arrived == nullptr ? "null" : "");
    if (arrived == nullptr) return MQTTASYNC_NULL_PARAMETER;  // and the former ones stay
    if (code != 0) return code;
    const PahoLock lock(fake().paho_mutex);
    FakePaho::Handle& own = fake().living(handle);
    own.context = context;
    own.lost = lost;
    own.arrived = arrived;
    return 0;
}

int MQTTAsync_connect(MQTTAsync handle, const MQTTAsync_connectOptions* options)
{
    const PahoLock lock(fake().paho_mutex);
    fake().living(handle).connect = *options;
    const int code = fake().record("connect");  // last, so that who waits for it may answer
    if (code == 0 && fake().answer_connects) {
        const auto answer = [handle, given = *options] {
            if (fake().handles.count(handle) > 0) given.onSuccess(given.context, nullptr);
        };
        fake().post(answer, false);
    }
    return code;
}

int MQTTAsync_disconnect(MQTTAsync handle, const MQTTAsync_disconnectOptions* options)
{
    const int code = fake().record("disconnect", std::to_string(options->timeout));
    const PahoLock lock(fake().paho_mutex);
    fake().living(handle);
    if (code == 0 && fake().answer_disconnects && options->onSuccess != nullptr) {
        const auto answer = [handle, given = *options] {
            if (fake().handles.count(handle) > 0) given.onSuccess(given.context, nullptr);
        };
        fake().post(answer, false);
    }
    return code;
}

int MQTTAsync_subscribe(MQTTAsync handle, const char* topic, int qos, MQTTAsync_responseOptions* options)
{
    const int code = fake().record("subscribe", std::string(topic) + " " + std::to_string(qos));
    const PahoLock lock(fake().paho_mutex);
    fake().living(handle).subscribed[topic] = *options;
    return code;
}

int MQTTAsync_unsubscribe(MQTTAsync handle, const char* topic, MQTTAsync_responseOptions* /*options*/)
{
    const int code = fake().record("unsubscribe", topic);
    const PahoLock lock(fake().paho_mutex);
    fake().living(handle);
    return code;
}

int MQTTAsync_sendMessage(MQTTAsync handle, const char* topic, const MQTTAsync_message* message,
                          MQTTAsync_responseOptions* options)
{
    const int code = fake().record("send", std::string(topic) + " " + std::to_string(message->qos) + " " +
                                               std::to_string(message->retained));
    const PahoLock lock(fake().paho_mutex);
    const auto found = fake().handles.find(handle);
    if (found == fake().handles.end()) {
        ++fake().lost_sends;
        return MQTTASYNC_FAILURE;
    }
    found->second.publish = *options;
    fake().last_payload.assign(static_cast<const char*>(message->payload),
                               static_cast<std::size_t>(message->payloadlen));
    return code;
}

void MQTTAsync_destroy(MQTTAsync* handle)
{
    fake().record("destroy");
    const PahoLock lock(fake().paho_mutex);
    fake().handles.erase(*handle);
    *handle = nullptr;
}

void MQTTAsync_freeMessage(MQTTAsync_message** message)
{
    --fake().unfreed;
    std::free((*message)->payload);
    std::free(*message);
    *message = nullptr;
}

void MQTTAsync_free(void* memory)
{
    --fake().unfreed;
    std::free(memory);
}
}
