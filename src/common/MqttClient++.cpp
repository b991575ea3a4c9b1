#include "MqttClient++.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cstring>
#include <exception>
#include <future>
#include <random>
#include <utility>

#include <Poco/Dynamic/Var.h>
#include <Poco/Exception.h>
#include <Poco/JSON/ParseHandler.h>
#include <Poco/JSON/Parser.h>

#include "Backoff.h"
#include "Logger.h"
#include "MqttClientImpl.h"
#include "Safeguards.h"
#include "ThreadName.h"
#include "ThreadPool.h"
#include "TopicFilter.h"

namespace kro
{

// The pool of all clients: made once, and kept to the end of the process.
static std::shared_ptr<ThreadPool> s_thread_pool;
static std::once_flag s_once_threadpool;

namespace
{

MQTTAsync_responseOptions responseOptions(MqttClient* client)
{
    MQTTAsync_responseOptions options = MQTTAsync_responseOptions_initializer;
    options.context = client;
    return options;
}

Poco::JSON::Object::Ptr parseObject(const std::string& text)
{
    Poco::JSON::Parser parser(new Poco::JSON::ParseHandler(false));
    return parser.parse(text).extract<Poco::JSON::Object::Ptr>();
}

std::string payloadText(const MQTTAsync_message* message)
{
    if (message == nullptr || message->payload == nullptr || message->payloadlen <= 0) return {};
    return {static_cast<const char*>(message->payload), static_cast<std::size_t>(message->payloadlen)};
}

// The class of heartbeats and telemetry: the first two names tell by the topic, all six by the payload's
// "api".
constexpr std::array<const char*, 6> kTelemetryNames = {
    "heartBeat",           "pushTelemetry",          "getCatapultCameraParam", "getSearchlightCameraParam",
    "preUploadedAudioCmd", "getMegaphoneCameraParam"};

bool isTelemetryTopic(const std::string& topic)
{
    return std::any_of(kTelemetryNames.begin(), kTelemetryNames.begin() + 2,
                       [&](const char* name) { return topic.find(name) != std::string::npos; });
}

bool isTelemetryApi(const std::string& api)
{
    return std::any_of(kTelemetryNames.begin(), kTelemetryNames.end(),
                       [&](const char* name) { return api.find(name) != std::string::npos; });
}

// A length that Paho gives, for comparing and adding: a negative one counts as enormous.
std::size_t unsignedLength(int payloadlen)
{
    return static_cast<std::size_t>(static_cast<std::int64_t>(payloadlen));
}

// At most 24 handlers of all clients are handed out, which leaves connecting and subscribing 8 of the pool's
// 32 threads; a thread that has just ended a task counts as busy for another moment. Never freed: a handler
// may run to the very end of the process.
detail::HandlerPlaces& placesOfAllClients()
{
    static auto* const places = new detail::HandlerPlaces(24);
    return *places;
}

// Makes and destroys the handles of the process one at a time: the end of the last one shuts Paho down, with Paho's
// mutex open in between, and a handle that is made at that moment goes down with it. Taken under client_mutex, never
// on a thread of Paho's.
std::mutex s_handles_mutex;
MQTTAsync s_spare_handle = nullptr;  // guarded by it

int makeHandle(MQTTAsync* handle, const char* uri, const char* client_id)
{
    const std::lock_guard<std::mutex> lock(s_handles_mutex);
    return MQTTAsync_create(handle, uri, client_id, MQTTCLIENT_PERSISTENCE_NONE, nullptr);
}

/// @param for_good  no other handle takes its place.
void destroyHandle(MQTTAsync handle, bool for_good)
{
    const std::lock_guard<std::mutex> lock(s_handles_mutex);
    // The last handle waits for Paho's threads to end, for up to a second. At the end of a client a spare one, never
    // connected, spares it that. Before a reconnection the wait is shorter than what it saves: a thread of Paho's
    // that was idle before looks at a new connection up to a second late, a new one at once.
    if (safeguarded(kPromptTeardown) && for_good && s_spare_handle == nullptr)
        MQTTAsync_create(&s_spare_handle, "tcp://127.0.0.1:1883", "spare", MQTTCLIENT_PERSISTENCE_NONE,
                         nullptr);
    if (!for_good && s_spare_handle != nullptr) MQTTAsync_destroy(&s_spare_handle);
    MQTTAsync_destroy(&handle);
}

// How many handlers of one client are at work at one time, where the clients do not share their places.
constexpr int MAX_IN_FLIGHT_HANDLERS = 64;

/// Marks the calling thread for a scope: it is a client's own, or one of Paho's or the pool's at work for a
/// client. No client can end there, since its end waits for these.
class ClientThread
{
public:
    ClientThread() : before(s_marked) { s_marked = true; }
    ~ClientThread() { s_marked = before; }
    ClientThread(const ClientThread&) = delete;
    ClientThread& operator=(const ClientThread&) = delete;
    static bool isThis() { return s_marked; }

private:
    static thread_local bool s_marked;
    const bool before;
};
thread_local bool ClientThread::s_marked = false;

/// Ends clients on threads made for it. The end of the process waits for those under way.
class Retirement
{
public:
    static void of(MqttClient* client)
    {
        static Retirement all;
        const std::lock_guard<std::mutex> lock(all.mutex);
        try {
            std::thread([client] {
                detail::nameThisThread("kro-mqtt-end");
                delete client;
                const std::lock_guard<std::mutex> end_lock(all.mutex);
                --all.under_way;
                all.ended.notify_all();
            }).detach();
            ++all.under_way;
        } catch (const std::exception& e) {
            KRO_LOG_ERROR("A client could not be ended and lives on: %s", std::string(e.what()));
        }
    }

private:
    ~Retirement()
    {
        std::unique_lock<std::mutex> lock(mutex);
        ended.wait(lock, [this] { return under_way == 0; });
    }
    std::mutex mutex;  // guards under_way
    std::condition_variable ended;
    int under_way = 0;
};

}  // namespace

// ---- The client object ----

// Throws before the first createInstance(), which a client made without it can meet.
ThreadPool& MqttClient::pool()
{
    if (!s_thread_pool) throw Poco::IllegalStateException("no MqttClient::createInstance() so far");
    return *s_thread_pool;
}

std::shared_ptr<MqttClient> MqttClient::createInstance(std::string server_uri, std::string client_id,
                                                       std::string username, std::string password)
{
    std::call_once(s_once_threadpool, [] { s_thread_pool = std::make_shared<ThreadPool>(1, 32, 60, 0); });
    auto* const client =
        new MqttClient(std::move(server_uri), std::move(client_id), std::move(username), std::move(password));
    if (!safeguarded(kSafeLifetime)) return std::shared_ptr<MqttClient>(client);
    return std::shared_ptr<MqttClient>(client, [](MqttClient* last) {
        if (ClientThread::isThis())
            Retirement::of(last);
        else
            delete last;
    });
}

MqttClient::MqttClient(std::string server_uri, std::string client_id, std::string username,
                       std::string password)
    : impl(std::make_unique<Impl>(std::move(server_uri), std::move(client_id), std::move(username),
                                  std::move(password)))
{
    Create_l();
}

MqttClient::~MqttClient()
{
    // Not reset(), which may clear the pointer first: until ~Impl has ended, Paho's callbacks and the control
    // tasks that it waits for still come through it.
    delete impl.get();
    static_cast<void>(impl.release());
}

MqttClient::Impl::Impl(std::string uri, std::string id, std::string user, std::string pass)
    : server_uri(std::move(uri)),
      client_id(std::move(id)),
      username(std::move(user)),
      password(std::move(pass)),
      drains_in_place(safeguarded(kDrainInPlace)),
      places(safeguarded(kWaitForThread) ? &placesOfAllClients()
             : drains_in_place           ? &own_places.emplace(MAX_IN_FLIGHT_HANDLERS)
                                         : nullptr),
      in_flight_handlers(std::make_shared<std::atomic<int>>(0))
{
    StartControlThread();
}

void MqttClient::Impl::StartControlThread()
{
    control_thread = std::thread([this] {
        detail::nameThisThread("kro-mqtt-ctl");
        ControlLoop();
    });
}

void MqttClient::Impl::ControlLoop()
{
    const ClientThread mark;
    while (control_running) {
        std::unique_lock<std::mutex> lock(control_mutex);
        control_cv.wait(lock, [this] { return !control_tasks.empty() || !control_running; });
        if (!control_running) return;
        const std::function<void()> task = std::move(control_tasks.front());
        control_tasks.pop_front();
        lock.unlock();
        try {
            task();
        } catch (const std::exception& e) {
            KRO_LOG_ERROR(std::string("Control task exception: ") + e.what());
        }
    }
}

void MqttClient::Impl::PostControlTask(std::function<void()> task)
{
    const std::lock_guard<std::mutex> lock(control_mutex);
    if (!control_running) return;
    control_tasks.push_back(std::move(task));
    control_cv.notify_one();
}

void MqttClient::Impl::TellConnectResult(int code)
{
    const ClientThread mark;
    std::unique_lock<std::mutex> lock(control_mutex);
    const auto callback = connect_callback;  // a copy: the host may call Connect again from it
    lock.unlock();
    if (callback) callback(code);
}

void MqttClient::Impl::TellConnectionLost(const std::string& cause)
{
    const ClientThread mark;
    std::unique_lock<std::mutex> lock(control_mutex);
    const auto callback = connection_lost_callback;
    lock.unlock();
    if (callback) callback(cause);
}

void MqttClient::Impl::StartMessageProcessor()
{
    // A client keeps its one processor when its handle is replaced. Asked in this order: ~Impl stops
    // reconnecting before it stops the processor, and none may be started behind it.
    const std::lock_guard<std::mutex> lock(queue_mutex);
    if (processor_started || stop_reconnect) return;
    processor_started = true;
    message_processor_thread = std::thread([this] {
        detail::nameThisThread("kro-mqtt-proc");
        if (places == nullptr)
            ProcessMessages();
        else
            ProcessInPlaces();
    });
}

std::string MqttClient::getstation()
{
    if (impl->client_id.empty()) {
        KRO_LOG_ERROR("client_id is empty");
        return {};
    }
    KRO_LOG_INFORMATION("client_id is %s", impl->client_id);
    return impl->client_id;
}

void MqttClient::SetDeliveryCompleteCallback(std::function<void(int)> callback)
{
    impl->delivery_complete_callback.swap(callback);
}

void MqttClient::setMessageReceiveTailorCallback(std::function<void(const Poco::JSON::Object::Ptr&)> callback)
{
    impl->message_receive_tailor_callback.swap(callback);
}

void MqttClient::setMessagePushSpliceCallback(std::function<void(std::string&)> callback)
{
    impl->message_push_splice_callback.swap(callback);
}

void MqttClient::setMsgFwdHandlerCallback(
    std::function<unsigned char(const Poco::JSON::Object&, std::string, int)> callback)
{
    impl->msg_fwd_handler_callback.swap(callback);
}

void MqttClient::SetVehicleConn(bool vehicle_conn)
{
    impl->vehicle_conn = vehicle_conn;
}

void MqttClient::setLinkType(int link_type)
{
    impl->link_type = link_type;
}

bool MqttClient::IsConnected()
{
    return impl && impl->isConnected();
}

std::size_t MqttClient::GetQueueSize() const
{
    const std::lock_guard<std::mutex> lock(impl->queue_mutex);
    return impl->message_queue.size();
}

std::size_t MqttClient::GetMemoryUsage() const
{
    return impl->memory_usage;
}

std::size_t MqttClient::GetDroppedMessages() const
{
    return impl->dropped_messages;
}

// ---- Connecting ----

namespace
{
/// @return a function whose copies share one function object, and so its state: each call of a callback is
///         made on a copy.
template <typename Argument>
std::function<bool(Argument)> sharingItsState(std::function<bool(Argument)> callback)
{
    if (!callback) return callback;
    return [shared = std::make_shared<std::function<bool(Argument)>>(std::move(callback))](
               Argument argument) { return (*shared)(argument); };
}

/// Whether a std::shared_ptr owns the client, or has owned it: then it is ending.
bool isOrWasOwned(const std::weak_ptr<MqttClient>& client)
{
    const std::weak_ptr<MqttClient> never_owned;
    return client.owner_before(never_owned) || never_owned.owner_before(client);
}
}  // namespace

void MqttClient::Connect(std::function<bool(int)> on_connect, std::function<bool(const std::string&)> on_lost)
{
    on_connect = sharingItsState(std::move(on_connect));
    on_lost = sharingItsState(std::move(on_lost));
    {
        const std::lock_guard<std::mutex> lock(impl->control_mutex);
        impl->connect_callback.swap(on_connect);
        impl->connection_lost_callback.swap(on_lost);
    }
    std::shared_ptr<MqttClient> self;
    if (safeguarded(kSafeLifetime) && isOrWasOwned(weak_from_this())) {
        self = weak_from_this().lock();
        if (!self) return;  // called in a callback while the client ends
    } else {
        self = shared_from_this();
    }
    // Settled: the task holds the client until it has run, so that a last reference dropped before then ends
    // the client on its own control thread, whose join of itself ends the process.
    impl->PostControlTask([self = std::move(self)] { self->Connect_l(); });
}

void MqttClient::Create_l()
{
    std::unique_lock<std::mutex> lock(impl->client_mutex);
    if (impl->stop_reconnect) {
        KRO_LOG_INFORMATION("Stop reconnect flag set, aborting client creation");
        return;
    }
    lock.unlock();
    if (impl->async_client != nullptr) {
        KRO_LOG_INFORMATION("Cleaning up existing client before recreation");
        impl->Cleanup();
    }
    lock.lock();
    if (impl->stop_reconnect) {
        KRO_LOG_INFORMATION("Stop reconnect flag set after cleanup, aborting client creation");
        return;
    }
    MQTTAsync handle = nullptr;
    const int created = makeHandle(&handle, impl->server_uri.c_str(), impl->client_id.c_str());
    if (created != MQTTASYNC_SUCCESS) {
        KRO_LOG_ERROR("Failed to create async mqtt client, return code %d", created);
        impl->connection_state = Disconnected;
        return;
    }
    impl->async_client = handle;
    KRO_LOG_INFORMATION("Success to create async mqtt client");
    const int set = MQTTAsync_setCallbacks(handle, this, OnConnectionLost, OnMessageArrived, nullptr);
    if (set != MQTTASYNC_SUCCESS) {
        KRO_LOG_ERROR("Failed to set callbacks, return code %d", set);
        destroyHandle(handle, false);
        impl->async_client = nullptr;
        impl->connection_state = Disconnected;
        return;
    }
    KRO_LOG_INFORMATION("Success to set callbacks.");
    impl->StartMessageProcessor();
}

void MqttClient::Connect_l()
{
    impl->connection_state = Connecting;
    impl->last_connect_attempt = std::chrono::steady_clock::now();
    KRO_LOG_INFORMATION("Start connecting async mqtt client");
    // Settled: when the pool has no thread, the exception goes to the control loop, which logs it, and the
    // client stays in Connecting until the host calls Connect again.
    try {
        pool().start([this, weak = weak_from_this()] {
            const auto self = weak.lock();
            if (!self) {
                KRO_LOG_ERROR("this ptr is nullptr.");
                return;
            }
            Attempt_l();
        });
    } catch (const Poco::Exception&) {  // no thread is free, or the system has none to give
        if (!safeguarded(kWaitForThread)) throw;
        StartOver_l("no thread for connecting");
    }
}

void MqttClient::StartOver_l(const std::string& reason)
{
    impl->reconnecting = false;
    impl->connection_state = Disconnected;
    ScheduleReconnect(reason);
}

void MqttClient::Attempt_l()
{
    std::unique_lock<std::mutex> lock(impl->client_mutex, std::defer_lock);
    try {
        lock.lock();
        const MQTTAsync handle = impl->async_client;
        if (handle == nullptr) {
            KRO_LOG_ERROR("async mqtt client is nullptr.");
            impl->connection_state = Disconnected;
            if (safeguarded(kKeepTrying)) StartOver_l("connect without a handle");
            return;
        }
        MQTTAsync_connectOptions options = MQTTAsync_connectOptions_initializer;
        options.keepAliveInterval = 90;  // seconds
        options.connectTimeout = 20;     // seconds
        options.username = impl->username.c_str();
        options.password = impl->password.c_str();
        options.onSuccess = OnConnectSuccess;
        options.onFailure = OnConnectFailure;
        options.context = this;
        // Settled: else version 0 stands, with which Paho tries 3.1.1 and then 3.1, each time anew.
        if (safeguarded(kPinProtocol)) options.MQTTVersion = MQTTVERSION_3_1_1;
        const int started = MQTTAsync_connect(handle, &options);
        if (started != MQTTASYNC_SUCCESS) {
            // Settled: no reconnection from here, nor from the other failures of this step; only an answer
            // from Paho drives the back-off. An attempt of a reconnection that fails here leaves
            // `reconnecting` set, and ends the reconnecting until the host calls Connect and a success clears
            // it.
            KRO_LOG_ERROR("Failed to start connect, return code %d", started);
            impl->connection_state = Disconnected;
            impl->TellConnectResult(started);
            if (safeguarded(kKeepTrying)) StartOver_l("connect refusal");
            return;
        }
        KRO_LOG_INFORMATION("Connect operation started successfully");
        lock.unlock();
    } catch (const std::exception& e) {
        if (lock.owns_lock()) lock.unlock();
        KRO_LOG_ERROR(std::string("Connect exception: ") + e.what());
        impl->connection_state = Disconnected;
        impl->TellConnectResult(-1);
        if (safeguarded(kKeepTrying)) StartOver_l("connect exception");
    }
}

void MqttClient::OnConnectSuccess(void* context, MQTTAsync_successData* /*response*/)
{
    auto* const client = static_cast<MqttClient*>(context);
    if (client == nullptr || !client->impl) return;
    Impl& impl = *client->impl;
    impl.failure_count = 0;
    {
        const std::lock_guard<std::mutex> lock(impl.control_mutex);
        impl.reconnect_base_delay = 1000;
        impl.quick_retry = false;
        impl.last_connected_at = std::chrono::steady_clock::now();
    }
    impl.connection_state = Connected;
    impl.connected = true;
    impl.reconnecting = false;
    KRO_LOG_INFORMATION("MQTT connection established successfully");
    impl.TellConnectResult(0);
    impl.PostControlTask([client, weak = client->weak_from_this()] { client->Resubscribe_l(weak); });
}

// ---- Reconnecting ----

void MqttClient::OnConnectFailure(void* context, MQTTAsync_failureData* response)
{
    auto* const client = static_cast<MqttClient*>(context);
    if (client == nullptr || !client->impl) return;
    Impl& impl = *client->impl;
    const int code = response == nullptr ? -1 : response->code;
    KRO_LOG_ERROR("MQTT connection failed, return code %d", code);
    impl.connected = false;
    impl.reconnecting = false;
    impl.connection_state = Disconnected;
    impl.TellConnectResult(code);
    client->ScheduleReconnect("connect failure");
}

void MqttClient::OnConnectionLost(void* context, char* cause)
{
    auto* const client = static_cast<MqttClient*>(context);
    if (client == nullptr || !client->impl) return;
    Impl& impl = *client->impl;
    KRO_LOG_ERROR("MQTT connection lost: %s", std::string(cause == nullptr ? "unknown" : cause));
    impl.connection_state = Disconnected;
    impl.connected = false;
    impl.reconnecting = false;
    impl.TellConnectionLost(cause == nullptr ? "" : cause);
    client->ScheduleReconnect("connection lost");
}

void MqttClient::ScheduleReconnect(const std::string& reason)
{
    if (impl->stop_reconnect) return;
    // Settled: a client that has never connected counts from the clock's epoch, the start of the system. The
    // flag holds until the next success.
    std::unique_lock<std::mutex> lock(impl->control_mutex);
    const auto since_success = std::chrono::steady_clock::now() - impl->last_connected_at;
    const auto shortest_ms = impl->reconnect_base_delay;
    lock.unlock();
    if (since_success < std::chrono::seconds(3600)) impl->quick_retry = true;
    const int failures = ++impl->failure_count;
    const int base_ms = detail::backoffDelayMs(failures, impl->quick_retry, shortest_ms);
    std::random_device seed("default");
    std::mt19937 generator(seed());
    const int delay_ms = base_ms + std::uniform_int_distribution<int>(0, base_ms / 5)(generator);
    // Settled: no fault, and ERROR all the same, so that a log which shows only errors shows the outage
    // whole.
    KRO_LOG_ERROR("Scheduling reconnection after %s in %d ms, failure count: %d, quick_retry: %s", reason,
                  delay_ms, failures, std::string(impl->quick_retry ? "true" : "false"));
    impl->PostControlTask([this, weak = weak_from_this(), delay_ms] { Reconnect_l(weak, delay_ms); });
}

void MqttClient::Reconnect_l(const std::weak_ptr<MqttClient>& weak, int delay_ms)
{
    // Only asked, never locked: the last reference must not end on this thread, and ~Impl joins it before
    // anything goes that this step touches.
    if (weak.expired() || impl->stop_reconnect) return;
    if (IsConnected()) {
        KRO_LOG_INFORMATION("Already connected, skipping reconnection");
        return;
    }
    {
        using Clock = std::chrono::steady_clock;
        constexpr std::chrono::milliseconds kLongestWait(100);
        std::unique_lock<std::mutex> lock(impl->reconnect_mutex);
        const auto deadline = Clock::now() + std::chrono::milliseconds(delay_ms);
        // ~Impl sets the flag and notifies without the mutex, so its one wake can fall between the test and
        // the wait. Waiting in short pieces bounds what that costs a destruction, instead of the whole delay.
        while (!impl->stop_reconnect && Clock::now() < deadline)
            impl->reconnect_cv.wait_until(lock, std::min(deadline, Clock::now() + kLongestWait));
    }
    if (IsConnected() || impl->reconnecting || impl->stop_reconnect) {
        KRO_LOG_INFORMATION("Connection state changed during delay, skipping reconnection");
        return;
    }
    if (impl->reconnecting.exchange(true)) {
        KRO_LOG_INFORMATION("Another reconnection already in progress, skipping");
        return;
    }
    KRO_LOG_INFORMATION("Starting reconnection process");
    impl->connection_state = Reconnecting;
    Create_l();
    if (impl->stop_reconnect || impl->async_client == nullptr) {
        // Settled: without a handle the reconnecting ends until the host calls Connect again.
        impl->reconnecting = false;
        impl->connection_state = Disconnected;
        if (safeguarded(kKeepTrying)) ScheduleReconnect("failure to make a handle");
        return;
    }
    Connect_l();
}

void MqttClient::Resubscribe_l(const std::weak_ptr<MqttClient>& weak)
{
    if (weak.expired()) return;  // only asked, never locked, as in Reconnect_l
    if (!IsConnected()) {
        KRO_LOG_ERROR("Connection lost before re-subscription could start");
        return;
    }
    std::unique_lock<std::mutex> map_lock(impl->subscribe_mutex);
    const auto subscriptions = impl->subscribe_map;
    const auto asked_qos = impl->asked_qos;
    map_lock.unlock();
    KRO_LOG_INFORMATION("Re-subscribing after reconnection, count: %d",
                        static_cast<int>(subscriptions.size()));
    for (const auto& entry : subscriptions) {
        const std::string& topic = entry.first;
        if (impl->async_client == nullptr) return;
        if (!IsConnected()) continue;
        const std::lock_guard<std::mutex> lock(impl->client_mutex);
        if (!IsConnected()) {
            KRO_LOG_ERROR("Connection lost during subscription of topic: %s", topic);
            return;
        }
        // Settled: always at QoS 1, whatever the host asked for, and a refusal by the broker goes unseen.
        int qos = 1;
        MQTTAsync_responseOptions options = responseOptions(this);
        const auto asked = asked_qos.find(topic);
        if (asked != asked_qos.end()) {  // kKeepQos
            qos = asked->second;
            options.context = const_cast<std::string*>(&*impl->resubscribed.insert(topic).first);
            options.onFailure = OnResubscribeFailure;
        }
        const int code = MQTTAsync_subscribe(impl->async_client, topic.c_str(), qos, &options);
        if (code != MQTTASYNC_SUCCESS)
            KRO_LOG_ERROR("Failed to resubscribe topic %s, return code %d", topic, code);
        else
            KRO_LOG_INFORMATION("Success to resubscribe topic %s", topic);
    }
}

void MqttClient::OnResubscribeFailure(void* context, MQTTAsync_failureData* response)
{
    // 128 is the broker's own refusal (MQTT 3.1.1 section 3.9.3).
    KRO_LOG_ERROR("Failed to resubscribe topic %s, return code %d", *static_cast<const std::string*>(context),
                  response == nullptr ? -1 : response->code);
}

// ---- Subscriptions ----

void MqttClient::Subscribe(MessageHandler handler, std::string topic, int qos)
{
    std::weak_ptr<MqttClient> weak;
    if (safeguarded(kSafeLifetime)) weak = weak_from_this();
    const bool asks = isOrWasOwned(weak);
    // Settled: the task holds a plain pointer. Hosts keep the client until their Subscribe calls have run.
    const std::function<void()> task = [this, asks, weak = std::move(weak), handler = std::move(handler),
                                        topic = std::move(topic), qos] {
        const auto self = weak.lock();
        if (self || !asks) Subscribe_l(handler, topic, qos);
    };
    try {
        pool().start(task);
    } catch (const std::exception& e) {
        // A full pool costs the caller its time and loses nothing.
        KRO_LOG_INFORMATION("mqtt subscribe exception: %s", std::string(e.what()));
        task();
    }
}

void MqttClient::Subscribe_l(const MessageHandler& handler, const std::string& topic, int qos)
{
    static std::atomic<int> call_count{0};  // numbers the log line, across all clients
    try {
        const int number = ++call_count;
        KRO_LOG_INFORMATION("Subscribe call #%d for topic: %s", number, topic);
        const std::lock_guard<std::mutex> lock(impl->client_mutex);
        {
            const std::lock_guard<std::mutex> map_lock(impl->subscribe_mutex);
            auto& handlers = impl->subscribe_map[topic];
            handlers.push_back(handler);
            if (safeguarded(kTopicMatching) && topic.find_first_of("+#") != std::string::npos)
                impl->wildcard_filters.add(topic, &handlers);
            if (safeguarded(kKeepQos)) {
                int& highest = impl->asked_qos[topic];  // 0 at first
                highest = std::max(highest, qos);
            }
        }
        const MQTTAsync handle = impl->async_client;
        if (handle == nullptr) {
            KRO_LOG_ERROR("Failed to subscribe topic %s, async_client is null", topic);
            return;
        }
        if (!impl->connected) {
            KRO_LOG_ERROR("Failed to subscribe topic %s, async_client is not connected", topic);
            return;
        }
        MQTTAsync_responseOptions options = responseOptions(this);
        const int code = MQTTAsync_subscribe(handle, topic.c_str(), qos, &options);
        if (code != MQTTASYNC_SUCCESS)
            KRO_LOG_ERROR("Failed to subscribe topic %s, return code %d", topic, code);
        else
            KRO_LOG_INFORMATION("Success to subscribe topic %s, return code %d", topic, code);
    } catch (const std::exception& e) {
        KRO_LOG_ERROR(e.what());
    }
}

void MqttClient::Subscribe(JsonHandler handler, std::string topic, int qos)
{
    MessageHandler wrapper = [this, handler = std::move(handler), qos](MQTTAsync_message* message,
                                                                       const std::string& message_topic) {
        if (message == nullptr || message->payload == nullptr || message->payloadlen <= 0) return;
        try {
            const Poco::JSON::Object::Ptr object = parseObject(payloadText(message));
            if (!handler || object.isNull()) {
                KRO_LOG_ERROR("invalid json string");
                return;
            }
            const auto& gate = impl->msg_fwd_handler_callback;
            if (gate && gate(*object, message_topic, qos) != 1) return;
            handler(*object, message_topic);
        } catch (const Poco::Exception& e) {
            KRO_LOG_ERROR(e.displayText());
        }
    };
    Subscribe(std::move(wrapper), std::move(topic), qos);
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): hosts are compiled against this signature
void MqttClient::Unsubscribe(std::string topic)
{
    try {
        const std::lock_guard<std::mutex> lock(impl->client_mutex);
        const MQTTAsync handle = impl->async_client;
        if (handle == nullptr) {
            // Settled: without a handle the topic stays in the table.
            KRO_LOG_ERROR("Failed to unsubscribe topic=%s, mqtt client is null", topic);
            return;
        }
        if (!impl->connected) {
            KRO_LOG_INFORMATION("mqtt is not connected!");
        } else {
            MQTTAsync_responseOptions options = responseOptions(this);
            const int code = MQTTAsync_unsubscribe(handle, topic.c_str(), &options);
            if (code != MQTTASYNC_SUCCESS)
                KRO_LOG_ERROR("Failed to unsubscribe topic %s, return code %d", topic, code);
            else
                KRO_LOG_INFORMATION("Success to unsubscribe topic %s, return code %d", topic, code);
        }
    } catch (const std::exception& e) {
        KRO_LOG_ERROR(e.what());
    }
    // Settled: forgotten even when the broker could not be told. No later connection subscribes it again.
    // Goes after the lock: a capture may be the last reference to another client.
    decltype(impl->subscribe_map)::node_type gone;
    const std::lock_guard<std::mutex> lock(impl->subscribe_mutex);
    impl->wildcard_filters.remove(topic);  // first: it leads into the map
    gone = impl->subscribe_map.extract(topic);
    impl->asked_qos.erase(topic);
    KRO_LOG_INFORMATION("--Success to erase topic %s from subscribe map", topic);
}

// ---- Publishing ----

// NOLINTNEXTLINE(performance-unnecessary-value-param): likewise
bool MqttClient::PublishMessage(std::string payload, std::string topic, int qos, int retained,
                                int /*reserved*/)
{
    if (impl->async_client == nullptr || !IsConnected()) return false;
    // Settled: without it the handle may be destroyed under the send. No lock does this: Cleanup would hold
    // it while it waits for Paho, and a publish on one of Paho's threads would wait for Cleanup.
    const bool safe = safeguarded(kSafeLifetime);
    struct Use
    {
        explicit Use(std::atomic<int>* of) : count(of)
        {
            if (count != nullptr) ++*count;
        }
        ~Use()
        {
            if (count != nullptr) --*count;
        }
        Use(const Use&) = delete;
        Use& operator=(const Use&) = delete;
        std::atomic<int>* const count;
    } const use(safe ? &impl->publishing : nullptr);
    if (!safe) {
        const std::lock_guard<std::mutex> lock(impl->client_mutex);
        if (impl->async_client == nullptr || !IsConnected()) {
            KRO_LOG_ERROR("Publish failed: connection lost during check, topic: %s", topic);
            return false;
        }
    }
    MQTTAsync_message message = MQTTAsync_message_initializer;
    message.payload = payload.data();
    message.payloadlen = static_cast<int>(payload.size());
    message.qos = qos;
    message.retained = retained;
    MQTTAsync_responseOptions options = responseOptions(this);
    options.onSuccess = OnPublishSuccess;
    options.onFailure = OnPublishFailure;
    // Settled: the send runs outside client_mutex, so a reconnection may replace the handle at this moment.
    // It is read afresh here, so that the new one or none is met rather than the old one.
    const MQTTAsync handle = impl->async_client;
    const int code = handle == nullptr && safe ? MQTTASYNC_DISCONNECTED
                     : payload.size() > INT_MAX
                         ? MQTTASYNC_FAILURE  // Paho's length is an int, and would say another one
                         : MQTTAsync_sendMessage(handle, topic.c_str(), &message, &options);
    if (code != MQTTASYNC_SUCCESS) {
        KRO_LOG_ERROR("Failed to publish message for topic %s, return code %d", topic, code);
        return false;
    }
    return true;
}

void MqttClient::OnPublishSuccess(void* context, MQTTAsync_successData* response)
{
    auto* const client = static_cast<MqttClient*>(context);
    if (client == nullptr || !client->impl || !client->impl->delivery_complete_callback) return;
    const ClientThread mark;
    client->impl->delivery_complete_callback(response == nullptr ? 0 : response->token);
}

void MqttClient::OnPublishFailure(void* context, MQTTAsync_failureData* response)
{
    if (context == nullptr) return;
    const int code = response == nullptr ? -1 : response->code;
    const char* const reason = response == nullptr ? nullptr : response->message;
    // What stands behind "topic:" is Paho's reason: the callback doesn't know the topic.
    KRO_LOG_ERROR("Publish failed, return code %d, topic: %s", code,
                  std::string(reason == nullptr ? "unknown" : reason));
}

// ---- Inbound: admission on Paho's thread ----

namespace
{
constexpr std::size_t MAX_MESSAGE_SIZE = 20971520;   // 20 MiB, of one payload
constexpr std::size_t MAX_QUEUE_MEMORY = 419430400;  // 400 MiB, of all entries' costs
constexpr std::size_t MAX_QUEUE_ENTRIES = 100000;
constexpr std::size_t MESSAGE_OVERHEAD = 160;  // the charge for the record itself, in bytes

std::size_t entryCost(const std::string& topic, int payloadlen)
{
    return topic.size() + MESSAGE_OVERHEAD + unsignedLength(payloadlen);
}
}  // namespace

MqttClient::Impl::AsyncMessage::AsyncMessage(const MQTTAsync_message& received, std::string to_topic,
                                             std::string with_api, MessageHandler to_handler)
    : topic(std::move(to_topic)), api(std::move(with_api)), handler(std::move(to_handler))
{
    const auto length = static_cast<std::size_t>(received.payloadlen);
    message.payload = new char[length];
    if (length > 0) std::memcpy(message.payload, received.payload, length);
    message.payloadlen = received.payloadlen;
    message.qos = received.qos;
    message.retained = received.retained;
}

MqttClient::Impl::AsyncMessage::AsyncMessage(AsyncMessage&& other) noexcept
    : message(other.message),
      topic(std::move(other.topic)),
      api(std::move(other.api)),
      handler(std::move(other.handler))
{
    other.message.payload = nullptr;
    other.message.payloadlen = 0;
}

MqttClient::Impl::AsyncMessage::~AsyncMessage()
{
    delete[] static_cast<char*>(message.payload);
}

void MqttClient::Impl::AsyncMessage::handle()
{
    try {
        if (handler) {
            handler(&message, topic);
            if (!api.empty()) KRO_LOG_INFORMATION("End handle msg async, topic: %s, api: %s", topic, api);
        }
    } catch (...) {  // Settled: what a handler throws is dropped without a word.
    }
}

std::size_t MqttClient::Impl::AsyncMessage::cost() const
{
    return entryCost(topic, message.payloadlen);
}

int MqttClient::OnMessageArrived(void* context, char* topicName, int /*topicLen*/, MQTTAsync_message* message)
{
    if (context != nullptr) {
        const ClientThread mark;
        Impl& impl = *static_cast<MqttClient*>(context)->impl;
        const std::string topic = topicName == nullptr ? "" : topicName;
        std::string api;
        if (impl.Classify(topic, message, api)) {
            auto handlers = impl.FindHandlers(topic);
            for (MessageHandler& handler : handlers)
                if (handler && message != nullptr) impl.Admit(std::move(handler), topic, api, *message);
        }
    }
    if (message != nullptr) MQTTAsync_freeMessage(&message);
    if (topicName != nullptr) MQTTAsync_free(topicName);
    return 1;  // taken over, on every path
}

bool MqttClient::Impl::Classify(const std::string& topic, const MQTTAsync_message* message,
                                std::string& api) const
{
    if (isTelemetryTopic(topic)) return link_type == 1;
    if (topic.compare(0, 6, "/krono") != 0) return true;
    const std::string payload = payloadText(message);
    Poco::JSON::Object::Ptr object;
    try {
        object = parseObject(payload);
        if (!object.isNull()) api = object->optValue<std::string>("api", "");
    } catch (...) {  // no JSON object is no fault here: the message goes on without an api
    }
    if (object.isNull()) return true;
    if (isTelemetryApi(api)) return link_type == 1;
    KRO_LOG_INFORMATION("mqtt rece msg: %s, topic=%s", payload, topic);
    return object->optValue<std::string>("type", "") != "response" || link_type == 1;
}

std::vector<MqttClient::MessageHandler> MqttClient::Impl::FindHandlers(const std::string& topic)
{
    const std::lock_guard<std::mutex> lock(subscribe_mutex);
    auto found = subscribe_map.find(topic);
    if (safeguarded(kTopicMatching)) {
        auto all = found == subscribe_map.end() ? std::vector<MessageHandler>() : found->second;
        wildcard_filters.match(topic, [&all](const std::vector<MessageHandler>& handlers) {
            all.insert(all.end(), handlers.begin(), handlers.end());
        });
        return all;
    }
    if (found == subscribe_map.end()) {
        // Settled: the first match in the map's order is the only one.
        found = std::find_if(subscribe_map.begin(), subscribe_map.end(),
                             [&](const auto& entry) { return detail::matchesWildcard(entry.first, topic); });
    }
    return found == subscribe_map.end() ? std::vector<MessageHandler>() : found->second;
}

void MqttClient::Impl::Admit(MessageHandler handler, const std::string& topic, const std::string& api,
                             const MQTTAsync_message& message)
{
    if (unsignedLength(message.payloadlen) > MAX_MESSAGE_SIZE) {
        KRO_LOG_ERROR("Message too large: %d bytes, max allowed: %zu bytes", message.payloadlen,
                      MAX_MESSAGE_SIZE);
        ++dropped_messages;
        return;
    }
    // Tests and additions are not one step: this thread is the only producer, and others only make room.
    const std::size_t cost = entryCost(topic, message.payloadlen);
    if (cost + memory_usage > MAX_QUEUE_MEMORY) {
        KRO_LOG_ERROR("Memory limit exceeded, dropping message");
        ++dropped_messages;
        return;
    }
    std::unique_lock<std::mutex> lock(queue_mutex);
    if (message_queue.size() > MAX_QUEUE_ENTRIES - 1) {
        KRO_LOG_ERROR("Message queue full, dropping message");
        ++dropped_messages;
        return;
    }
    lock.unlock();
    AsyncMessage entry(message, topic, api, std::move(handler));
    lock.lock();
    message_queue.push_back(std::move(entry));
    memory_usage += cost;
    const bool for_worker = lingers && message_queue.size() == 1;
    const bool for_processor = places == nullptr || (processor_waits && !lingers && !naps);
    lock.unlock();
    if (for_worker) work_cv.notify_one();
    if (for_processor) queue_cv.notify_one();
}

bool MqttClient::IsTelemetryMessage(const std::string& topic, const std::string& payload)
{
    if (isTelemetryTopic(topic)) return true;
    try {
        const Poco::JSON::Object::Ptr object = parseObject(payload);
        if (object.isNull() || !object->has("api")) return false;
        return isTelemetryApi(object->get("api").convert<std::string>());
    } catch (...) {
        return false;
    }
}

// ---- Inbound: the message processor ----

void MqttClient::Impl::HandlerGate::acquire()
{
    std::unique_lock<std::mutex> lock(mutex);
    released.wait(lock, [this] { return permits > 0; });
    --permits;
}

void MqttClient::Impl::HandlerGate::release()
{
    const std::lock_guard<std::mutex> lock(mutex);
    ++permits;
    released.notify_one();  // before the unlock, after which the gate may be gone
}

void MqttClient::Impl::ProcessMessages()
{
    constexpr std::chrono::milliseconds kQueueWait(500);
    HandlerGate handler_gate(MAX_IN_FLIGHT_HANDLERS);
    while (processor_started) {
        std::unique_lock<std::mutex> lock(queue_mutex);
        if (message_queue.empty()) {
            queue_cv.wait_until(lock, std::chrono::steady_clock::now() + kQueueWait,
                                [this] { return !processor_started || !message_queue.empty(); });
        }
        if (!processor_started) break;
        while (!message_queue.empty() && processor_started) HandOverFront(lock, handler_gate);
    }
    // The drain: with all permits back, no task points at the gate any more. It waits for as long as a
    // handler runs.
    for (int i = 0; i < MAX_IN_FLIGHT_HANDLERS; ++i) handler_gate.acquire();
}

void MqttClient::Impl::HandOverFront(std::unique_lock<std::mutex>& queue_lock, HandlerGate& gate)
{
    AsyncMessage front(std::move(message_queue.front()));
    message_queue.pop_front();
    memory_usage -= front.cost();
    queue_lock.unlock();
    gate.acquire();
    ++*in_flight_handlers;
    auto msg = std::make_shared<AsyncMessage>(std::move(front));
    // Settled: with all 32 threads of the pool busy, start() throws, nothing on this thread catches it, and
    // the process ends. No retry, no wait, no requeueing: 32 is the ceiling on handlers at one time.
    pool().start([msg, in_flight = in_flight_handlers, gate_place = &gate] {
        const ClientThread mark;
        msg->handle();
        // What it captures may be the last reference to a client: under the mark that one ends elsewhere.
        if (safeguarded(kSafeLifetime)) msg->handler = nullptr;
        --*in_flight;
        gate_place->release();
    });
    queue_lock.lock();
    msg.reset();  // Settled: if the task is already gone, the record goes here, with the queue locked
}

// ---- Inbound: the processor with places ----

// An entry stays in the queue until a worker takes it: so nothing is out of order or lost when no place or no
// thread is to be had, the queue's limits hold meanwhile, and an end of the client needs to wait for handlers
// only.

void MqttClient::Impl::ProcessInPlaces()
{
    // Short beside the time that a slow handler takes, long beside a thread's wake.
    constexpr std::chrono::microseconds kShortestLook(1000), kLongestLook(8000);
    const auto unserved = [this] { return message_queue.size() > workers_to_come; };
    std::unique_lock<std::mutex> lock(queue_mutex);
    while (processor_started) {
        processor_waits = true;
        queue_cv.wait(lock, [&] { return !processor_started || unserved(); });
        processor_waits = false;
        for (auto look = kShortestLook; processor_started && unserved();) {
            if (workers > 0 && drains_in_place) {
                taken = 0;
                queue_cv.wait_for(lock, look, [this] { return !processor_started || workers == 0; });
                look = std::min(2 * look, kLongestLook);
                if (!processor_started || !unserved() || (workers > 0 && !FallBehind_l())) continue;
            }
            if (StartWorker(lock)) look = kShortestLook;
        }
    }
    work_cv.notify_all();
    queue_cv.wait(lock, [this] { return workers == 0; });  // for as long as a handler runs
}

bool MqttClient::Impl::FallBehind_l() const
{
    // Workers that took as many entries in the time of one look as wait now need no help: another one would
    // find the queue empty by the time that it is awake. Where none was taken all may be in long handlers,
    // and the entry that one of these waits for may be the very next.
    return taken < message_queue.size() && (message_queue.size() > workers || taken == 0);
}

bool MqttClient::Impl::StartWorker(std::unique_lock<std::mutex>& queue_lock)
{
    constexpr std::chrono::milliseconds kRetry(10);
    // Without a worker, or with one for each entry, there is nothing to do but to wait for a place.
    const bool wait = workers == 0 || !drains_in_place;
    queue_lock.unlock();
    const bool placed = wait ? places->take(processor_started) : places->tryTake();
    queue_lock.lock();
    if (!placed) return false;
    ++workers;
    ++workers_to_come;
    queue_lock.unlock();
    bool started = false;
    try {
        pool().start([this] { Work(); });
        started = true;
    } catch (const Poco::Exception&) {  // logged by the pool
        // Settled: a full pool ends the process.
        if (!safeguarded(kWaitForThread)) throw;
        places->giveBack();
    }
    queue_lock.lock();
    if (started) return true;
    --workers;
    --workers_to_come;
    queue_cv.wait_for(queue_lock, kRetry, [this] { return !processor_started; });
    return false;
}

void MqttClient::Impl::Work()
{
    const ClientThread mark;
    bool has_place = true;
    bool flood = false;
    std::unique_lock<std::mutex> lock(queue_mutex);
    --workers_to_come;
    while (has_place && processor_started && (!message_queue.empty() || Linger_l(lock, flood))) {
        {
            AsyncMessage front(std::move(message_queue.front()));
            message_queue.pop_front();
            memory_usage -= front.cost();
            ++taken;
            // The handler may be a long one: somebody else is to look after the rest.
            const bool look = processor_waits && !message_queue.empty();
            lock.unlock();
            if (look) queue_cv.notify_one();
            front.handle();
        }
        has_place = drains_in_place && !places->giveBackIfWanted();
        if (!drains_in_place) places->giveBack();
        lock.lock();
    }
    if (has_place) places->giveBack();
    --workers;
    // Under the lock: after its release the client may be gone.
    if (workers == 0 && (!message_queue.empty() || !processor_started)) queue_cv.notify_all();
}

bool MqttClient::Impl::Linger_l(std::unique_lock<std::mutex>& queue_lock, bool& flood)
{
    constexpr std::chrono::milliseconds kLinger(1);
    constexpr std::chrono::microseconds kSoon(100), kNap(100);
    if (!drains_in_place || lingers || naps) return false;
    if (flood) {
        // What comes so fast is gathered, and Paho's thread need not wake anybody for it.
        naps = true;
        queue_lock.unlock();
        std::this_thread::sleep_for(kNap);
        queue_lock.lock();
        naps = false;
    }
    if (message_queue.empty()) {
        const auto begin = std::chrono::steady_clock::now();
        lingers = true;
        work_cv.wait_for(queue_lock, kLinger,
                         [this] { return !processor_started || !message_queue.empty(); });
        lingers = false;
        flood = std::chrono::steady_clock::now() - begin < kSoon;
    }
    return processor_started && !message_queue.empty();
}

// ---- Disconnection and teardown ----

void MqttClient::Disconnect()
{
    std::unique_lock<std::mutex> lock(impl->client_mutex);
    const MQTTAsync handle = impl->async_client;
    if (handle == nullptr) {
        KRO_LOG_ERROR("Failed to disconnect, async_client is null");
        impl->connection_state = Disconnected;
        impl->connected = false;
        return;
    }
    MQTTAsync_disconnectOptions options = MQTTAsync_disconnectOptions_initializer;
    options.timeout = 3000;  // milliseconds
    const int code = MQTTAsync_disconnect(handle, &options);
    if (code != MQTTASYNC_SUCCESS)
        KRO_LOG_ERROR("Failed to disconnect, return code %d", code);
    else
        KRO_LOG_INFORMATION("Success to disconnect.");
    lock.unlock();
    // Settled: down whatever Paho answered; and a reconnection that is already scheduled goes on.
    impl->connection_state = Disconnected;
    impl->connected = false;
}

void MqttClient::EmergencyClear()
{
    impl->ClearQueue();
}

void MqttClient::Impl::ClearQueue()
{
    std::deque<AsyncMessage> gone;  // with kSingleRelease; after the lock, as in Unsubscribe()
    const std::lock_guard<std::mutex> lock(queue_mutex);
    if (message_queue.empty()) {
        memory_usage = 0;
        return;
    }
    std::size_t messages = 0;
    std::size_t bytes = 0;
    while (!message_queue.empty()) {
        const MQTTAsync_message& message = message_queue.front().message;
        if (message.payload != nullptr) {
            bytes += static_cast<std::size_t>(message.payloadlen);
            // Settled: released here, and once more by the record's destructor. The allocator ends the
            // process at the first entry; only where it lets that pass does the call come to its end.
            if (!safeguarded(kSingleRelease)) delete[] static_cast<char*>(message.payload);
        }
        if (safeguarded(kSingleRelease)) gone.push_back(std::move(message_queue.front()));
        message_queue.pop_front();
        ++messages;
    }
    memory_usage = 0;
    if (messages > 0)
        KRO_LOG_ERROR("Emergency clear: %zu messages cleared, %zu bytes freed", messages, bytes);
}

void MqttClient::Impl::Cleanup()
{
    const std::lock_guard<std::mutex> lock(client_mutex);
    const MQTTAsync handle = async_client;
    if (handle == nullptr) return;
    MQTTAsync_setCallbacks(handle, nullptr, nullptr, nullptr, nullptr);
    std::promise<void> ended;  // until the handle is gone, and with it the callbacks that point here
    EndLink(handle, ended);
    async_client = nullptr;  // first: a publish looks without the mutex, and must not see what is gone
    // With kSafeLifetime: those that have seen it end their send, for which they need nothing of ours.
    while (publishing > 0) std::this_thread::sleep_for(std::chrono::microseconds(100));
    destroyHandle(handle, stop_reconnect);
    KRO_LOG_INFORMATION("destroy mqtt client");
    resubscribed.clear();
    // Settled: a second for Paho's threads to let go of the handle, with client_mutex held. Not needed: Paho
    // holds its mutex in every callback, and destroy takes it, so that none is under way when destroy has it
    // and none finds the handle afterwards.
    if (!safeguarded(kPromptTeardown)) std::this_thread::sleep_for(std::chrono::seconds(1));
}

void MqttClient::Impl::EndLink(MQTTAsync handle, std::promise<void>& ended)
{
    constexpr int kDisconnectTimeoutMs = 5000;
    const std::future<void> has_ended = ended.get_future();
    MQTTAsync_disconnectOptions options = MQTTAsync_disconnectOptions_initializer;
    options.timeout = kDisconnectTimeoutMs;
    options.onSuccess = [](void* context, MQTTAsync_successData*) {
        static_cast<std::promise<void>*>(context)->set_value();
        KRO_LOG_INFORMATION("disconnect mqtt successed");
    };
    options.onFailure = [](void* context, MQTTAsync_failureData*) {
        static_cast<std::promise<void>*>(context)->set_value();
        KRO_LOG_INFORMATION("disconnect mqtt failed");
    };
    options.context = &ended;
    const int code = MQTTAsync_disconnect(handle, &options);
    // Settled: a disconnect that Paho refuses at once brings no callback, and the wait runs to its end all
    // the same.
    if (safeguarded(kPromptTeardown) && code != MQTTASYNC_SUCCESS) return;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kDisconnectTimeoutMs);
    if (has_ended.wait_until(deadline) == std::future_status::timeout)
        KRO_LOG_WARNING("Disconnect timeout, forcing destroy");
}

MqttClient::Impl::~Impl()
{
    KRO_LOG_INFORMATION("mqtt ~Impl");
    stop_reconnect = true;
    reconnect_cv.notify_all();
    // The processor ends before the queue is emptied, so that nothing is handed out of a queue that is being
    // cleared.
    {
        const std::lock_guard<std::mutex> lock(queue_mutex);
        processor_started = false;
    }
    queue_cv.notify_all();
    if (places != nullptr) places->wake();
    if (message_processor_thread.joinable()) message_processor_thread.join();
    while (*in_flight_handlers > 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    ClearQueue();  // Settled: with entries in the queue this ends the process, as told there
    // The control thread ends before the handle goes, so that no control task can use it afterwards.
    {
        const std::lock_guard<std::mutex> lock(control_mutex);
        control_running = false;
    }
    control_cv.notify_all();
    if (control_thread.joinable()) control_thread.join();
    // Until here Paho may still deliver: what came after the clearing goes with the queue, once each, without
    // a word.
    Cleanup();
}

}  // namespace kro
