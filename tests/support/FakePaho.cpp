#include "support/FakePaho.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <future>
#include <memory>

namespace kro::test
{

FakePaho& FakePaho::instance()
{
    static auto* const fake = new FakePaho;  // never freed: its thread runs to the end of the process
    return *fake;
}

FakePaho::FakePaho()
{
    std::thread([this] { callbackThread(); }).detach();
}

void FakePaho::callbackThread()
{
    for (;;) {
        std::unique_lock<std::mutex> lock(state_mutex);
        state_cv.wait(lock, [this] { return !events.empty(); });
        const auto event = std::move(events.front());
        events.pop_front();
        lock.unlock();
        const std::lock_guard<std::recursive_mutex> paho_lock(paho_mutex);
        event();
    }
}

void FakePaho::fire(std::function<void()> callback, bool wait)
{
    const auto done = std::make_shared<std::promise<void>>();
    {
        const std::lock_guard<std::mutex> lock(state_mutex);
        events.push_back([callback = std::move(callback), done] {
            callback();
            done->set_value();
        });
    }
    state_cv.notify_one();
    if (wait) done->get_future().wait();
}

void FakePaho::fireOnNewest(const std::function<void(Handle&)>& callback, bool wait)
{
    fire(
        [this, callback] {
            const auto found = handles.find(newest);
            // One that has no callbacks yet is not connected to anything either.
            if (found != handles.end() && found->second->arrived != nullptr) callback(*found->second);
        },
        wait);
}

void FakePaho::reset()
{
    fire([] {}, true);  // nothing of an earlier test is under way any more
    const std::lock_guard<std::mutex> lock(state_mutex);
    recorded.clear();
    codes.clear();
    hooks.clear();
    last_payload.clear();
    pieces_out = 0;
    auto_connect = auto_disconnect = true;
}

std::vector<std::string> FakePaho::calls() const
{
    const std::lock_guard<std::mutex> lock(state_mutex);
    return recorded;
}

std::size_t FakePaho::count(const std::string& call) const
{
    const auto all = calls();
    return static_cast<std::size_t>(std::count(all.begin(), all.end(), call));
}

std::size_t FakePaho::countPrefix(const std::string& prefix) const
{
    const auto all = calls();
    return static_cast<std::size_t>(std::count_if(all.begin(), all.end(), [&](const std::string& call) {
        return call.compare(0, prefix.size(), prefix) == 0;
    }));
}

MQTTAsync_connectOptions FakePaho::lastConnect() const
{
    const std::lock_guard<std::mutex> lock(state_mutex);
    return last_connect;
}

std::string FakePaho::lastPayload() const
{
    const std::lock_guard<std::mutex> lock(state_mutex);
    return last_payload;
}

int FakePaho::unfreed() const
{
    const std::lock_guard<std::mutex> lock(state_mutex);
    return pieces_out;
}

void FakePaho::freed(int pieces)
{
    const std::lock_guard<std::mutex> lock(state_mutex);
    pieces_out -= pieces;
}

void FakePaho::script(const std::string& function, int code)
{
    const std::lock_guard<std::mutex> lock(state_mutex);
    codes[function].push_back(code);
}

void FakePaho::onCall(const std::string& function, std::function<void()> hook)
{
    const std::lock_guard<std::mutex> lock(state_mutex);
    hooks[function] = std::move(hook);
}

void FakePaho::answerConnects(bool on)
{
    const std::lock_guard<std::mutex> lock(state_mutex);
    auto_connect = on;
}

void FakePaho::answerDisconnects(bool on)
{
    const std::lock_guard<std::mutex> lock(state_mutex);
    auto_disconnect = on;
}

int FakePaho::record(const std::string& function, const std::string& call)
{
    std::function<void()> hook;
    int code = 0;
    {
        const std::lock_guard<std::mutex> lock(state_mutex);
        recorded.push_back(call);
        hook = hooks[function];
        auto& scripted = codes[function];
        if (!scripted.empty()) {
            code = scripted.front();
            scripted.pop_front();
        }
    }
    if (hook) hook();
    return code;
}

// ---- Events ----

void FakePaho::connectSucceeds()
{
    fireOnNewest([](Handle& handle) { handle.connect.onSuccess(handle.connect.context, nullptr); }, true);
}

void FakePaho::connectFails(const int* code)
{
    MQTTAsync_failureData data{};
    if (code != nullptr) data.code = *code;
    fireOnNewest(
        [&](Handle& handle) {
            handle.connect.onFailure(handle.connect.context, code == nullptr ? nullptr : &data);
        },
        true);
}

void FakePaho::loseConnection(const char* cause, bool wait)
{
    fireOnNewest(
        [cause](Handle& handle) {
            handle.lost(handle.context, cause == nullptr ? nullptr : const_cast<char*>(cause));
        },
        wait);
}

namespace
{
char* copied(const char* text)
{
    return text == nullptr ? nullptr : strdup(text);
}
}  // namespace

void FakePaho::deliver(const std::string& topic, const std::string& payload, int qos, bool wait)
{
    fireOnNewest(
        [this, topic, payload, qos](Handle& handle) {
            auto* const message = static_cast<MQTTAsync_message*>(std::malloc(sizeof(MQTTAsync_message)));
            *message = MQTTAsync_message_initializer;
            message->payload = std::malloc(payload.size());
            std::memcpy(message->payload, payload.data(), payload.size());
            message->payloadlen = static_cast<int>(payload.size());
            message->qos = qos;
            freed(-2);
            handle.arrived(handle.context, copied(topic.c_str()), 0, message);
        },
        wait);
}

void FakePaho::deliverRaw(const char* topic, MQTTAsync_message* message)
{
    freed(-(topic != nullptr ? 1 : 0) - (message != nullptr ? 1 : 0));
    fireOnNewest([=](Handle& handle) { handle.arrived(handle.context, copied(topic), 0, message); }, true);
}

void FakePaho::deliverNowhere(const std::string& topic)
{
    freed(-1);
    fireOnNewest([&](Handle& handle) { handle.arrived(nullptr, copied(topic.c_str()), 0, nullptr); }, true);
}

void FakePaho::publishSucceeds(int token, bool with_response)
{
    MQTTAsync_successData data{};
    data.token = token;
    fireOnNewest(
        [&](Handle& handle) {
            handle.publish.onSuccess(handle.publish.context, with_response ? &data : nullptr);
        },
        true);
}

void FakePaho::publishFails(int code, const char* text, bool with_response)
{
    MQTTAsync_failureData data{};
    data.code = code;
    data.message = text;
    fireOnNewest(
        [&](Handle& handle) {
            handle.publish.onFailure(handle.publish.context, with_response ? &data : nullptr);
        },
        true);
}

// ---- The functions ----

FakePaho::Handle& FakePaho::living(MQTTAsync handle)
{
    const auto found = handles.find(handle);
    if (found == handles.end()) {
        // The real library would touch what is gone.
        std::fprintf(stderr, "a call with a handle that is null or destroyed\n");
        std::abort();
    }
    return *found->second;
}

int FakePaho::create(MQTTAsync* handle, const char* uri, const char* id, int persistence)
{
    const int code =
        record("create", std::string("create ") + uri + " " + id + " " + std::to_string(persistence));
    if (code != 0) return code;
    const std::lock_guard<std::recursive_mutex> lock(paho_mutex);
    auto* const made = new Handle;
    *handle = newest = made;
    handles[made] = made;
    return 0;
}

int FakePaho::setCallbacks(MQTTAsync handle, void* context, MQTTAsync_connectionLost* lost,
                           MQTTAsync_messageArrived* arrived)
{
    const int code = record("setCallbacks", arrived == nullptr ? "setCallbacks null" : "setCallbacks");
    if (arrived == nullptr) return MQTTASYNC_NULL_PARAMETER;  // and the former ones stay
    if (code != 0) return code;
    const std::lock_guard<std::recursive_mutex> lock(paho_mutex);
    Handle& own = living(handle);
    own.context = context;
    own.lost = lost;
    own.arrived = arrived;
    return 0;
}

int FakePaho::connect(MQTTAsync handle, const MQTTAsync_connectOptions& options)
{
    const std::lock_guard<std::recursive_mutex> lock(paho_mutex);
    bool answer = false;
    {
        const std::lock_guard<std::mutex> state_lock(state_mutex);
        last_connect = options;
        answer = auto_connect;
    }
    living(handle).connect = options;
    const int code = record("connect", "connect");  // last, so that who waits for it may answer
    if (code != 0) return code;
    if (answer) {
        fire(
            [this, handle, options] {
                if (handles.count(handle) > 0) options.onSuccess(options.context, nullptr);
            },
            false);
    }
    return 0;
}

int FakePaho::disconnect(MQTTAsync handle, const MQTTAsync_disconnectOptions& options)
{
    const int code = record("disconnect", "disconnect " + std::to_string(options.timeout));
    if (code != 0) return code;
    const std::lock_guard<std::recursive_mutex> lock(paho_mutex);
    bool answer = false;
    {
        const std::lock_guard<std::mutex> state_lock(state_mutex);
        answer = auto_disconnect;
    }
    if (answer && options.onSuccess != nullptr) {
        fire(
            [this, handle, options] {
                if (handles.count(handle) > 0) options.onSuccess(options.context, nullptr);
            },
            false);
    }
    return 0;
}

int FakePaho::request(MQTTAsync handle, const std::string& function, const std::string& call)
{
    const int code = record(function, call);
    const std::lock_guard<std::recursive_mutex> lock(paho_mutex);
    living(handle);
    return code;
}

int FakePaho::send(MQTTAsync handle, const char* topic, const MQTTAsync_message& message,
                   const MQTTAsync_responseOptions& options)
{
    const int code = record("send", std::string("send ") + topic + " " + std::to_string(message.qos) + " " +
                                        std::to_string(message.retained));
    const std::lock_guard<std::recursive_mutex> lock(paho_mutex);
    const auto found = handles.find(handle);
    if (found == handles.end())
        return MQTTASYNC_FAILURE;  // a publish may meet a handle that is being replaced
    found->second->publish = options;
    const std::lock_guard<std::mutex> state_lock(state_mutex);
    last_payload.assign(static_cast<const char*>(message.payload),
                        static_cast<std::size_t>(message.payloadlen));
    return code;
}

void FakePaho::destroy(MQTTAsync* handle)
{
    record("destroy", "destroy");
    const std::lock_guard<std::recursive_mutex> lock(paho_mutex);
    const auto found = handles.find(*handle);
    if (found != handles.end()) {
        delete found->second;
        handles.erase(found);
    }
    *handle = nullptr;
}

}  // namespace kro::test

using kro::test::FakePaho;

extern "C" {
int MQTTAsync_create(MQTTAsync* handle, const char* uri, const char* id, int persistence, void* /*context*/)
{
    return FakePaho::instance().create(handle, uri, id, persistence);
}

int MQTTAsync_setCallbacks(MQTTAsync handle, void* context, MQTTAsync_connectionLost* lost,
                           MQTTAsync_messageArrived* arrived, MQTTAsync_deliveryComplete* /*delivered*/)
{
    return FakePaho::instance().setCallbacks(handle, context, lost, arrived);
}

int MQTTAsync_connect(MQTTAsync handle, const MQTTAsync_connectOptions* options)
{
    return FakePaho::instance().connect(handle, *options);
}

int MQTTAsync_disconnect(MQTTAsync handle, const MQTTAsync_disconnectOptions* options)
{
    return FakePaho::instance().disconnect(handle, *options);
}

int MQTTAsync_subscribe(MQTTAsync handle, const char* topic, int qos, MQTTAsync_responseOptions* /*options*/)
{
    return FakePaho::instance().request(handle, "subscribe",
                                        std::string("subscribe ") + topic + " " + std::to_string(qos));
}

int MQTTAsync_unsubscribe(MQTTAsync handle, const char* topic, MQTTAsync_responseOptions* /*options*/)
{
    return FakePaho::instance().request(handle, "unsubscribe", std::string("unsubscribe ") + topic);
}

int MQTTAsync_sendMessage(MQTTAsync handle, const char* topic, const MQTTAsync_message* message,
                          MQTTAsync_responseOptions* options)
{
    return FakePaho::instance().send(handle, topic, *message, *options);
}

void MQTTAsync_destroy(MQTTAsync* handle)
{
    FakePaho::instance().destroy(handle);
}

void MQTTAsync_freeMessage(MQTTAsync_message** message)
{
    FakePaho::instance().freed(1);
    std::free((*message)->payload);
    std::free(*message);
    *message = nullptr;
}

void MQTTAsync_free(void* memory)
{
    FakePaho::instance().freed(1);
    std::free(memory);
}
}
