#ifndef KRO_MQTT_CLIENT_H
#define KRO_MQTT_CLIENT_H

#include <cstddef>
#include <functional>
#include <memory>
#include <string>

#include <MQTTAsync.h>
#include <Poco/JSON/Object.h>

#include "KroApi.h"

namespace kro
{

class ThreadPool;

/// A link to one MQTT 3.1.1 broker that stays up for as long as the object lives: every failure and loss that
/// Paho reports leads to a new attempt, without limit, and each success subscribes everything again. What
/// Paho refuses at once is not tried again: after a refused attempt call Connect(), and after a refused
/// handle ("Failed to create async mqtt client" in the log) make a new client.
///
/// Made with createInstance() and held by the host's std::shared_ptr. The end of the last reference joins the
/// client's two threads, so it waits for handlers that still run, and takes 1 s while connected and 6 s while
/// not. Every result code that is handed on is Paho's own, 0 for success.
///
/// **Threads.** Every operation but the setters of callbacks may be called from any thread, with the exceptions
/// below. Handlers run on a pool of 32 threads that all clients of the process share, several at once and in
/// any order, even for one topic. A message that finds all 32 busy ends the process: keep handlers short.
/// Connection attempts and Subscribe() take threads of the same pool, and hold them for up to 6 s while a
/// handle is being replaced: don't call Subscribe() dozens of times at a stretch.
///
/// **Forbidden in callbacks.** Connect()'s callbacks and the delivery callback run on Paho's threads, with Paho's
/// process-wide lock held. They must not block, and must not call Subscribe(), Unsubscribe(), PublishMessage(),
/// Disconnect() or a setter of a callback, nor drop the last reference to any client: each may wait for a thread
/// that waits for Paho. Connect(), IsConnected(), getstation(), SetVehicleConn(), setLinkType() and the counters
/// are safe there. To do more, hand it to a thread of the host's.
///
/// **Ending a client.** On a thread of the host's, never in a handler or callback:
/// 1. Unsubscribe() every topic, twice (the second call waits for a message that Paho is just handing over), and
///    wait until GetQueueSize() is 0: a client that ends with messages waiting ends the process.
/// 2. Wait until the shared_ptr's use_count() is 1: the task of Connect() holds a reference, and were it the last
///    one, the client would end on its own control thread, and the process with it; a connection attempt holds one
///    for up to 6 s, and would end the client on a pool thread. Subscribe()'s tasks hold a plain pointer: let
///    them run, too.
/// 3. Drop the reference. A handler that runs at that moment must not reach the client through the same
///    shared_ptr, which is null from here on: let it keep the plain pointer, which is good until it returns.
///
/// What handlers and callbacks capture is destroyed with internal locks held: the destructors of captures
/// must not call into any client, nor hold the last reference to one.
///
/// **With safeguards** (Safeguards.h) most of these rules fall, but not the one on captures.
/// kWaitForThread: at most 24 handlers of all clients run at once and the rest wait in their queues, so
/// that no message ends the process. kKeepTrying: what Paho refuses at once is tried again as well.
/// kSingleRelease and kSafeLifetime: a client may end with messages waiting, with tasks under way and on
/// any thread, a handler's or callback's included; there the call that drops the last reference returns
/// at once, the client ends on a thread of its own, and callbacks may still come for a moment.
/// PublishMessage() may be called in the callbacks of Connect(). kPromptTeardown: an end takes
/// milliseconds, more only while published messages of QoS 1 or 2 are not acknowledged, for up to 5 s, or
/// while a handler runs.
class KRO_API MqttClient : public std::enable_shared_from_this<MqttClient>
{
public:
    /// A raw handler: gets the message, which stays the library's and must not be freed, and its topic. Of
    /// the message only payload, payloadlen, qos and retained are filled in.
    using MessageHandler = std::function<void(MQTTAsync_message*, const std::string&)>;
    /// A JSON handler: gets the payload's top-level object and the topic.
    using JsonHandler = std::function<void(const Poco::JSON::Object&, const std::string&)>;

    /// Makes a new, independent client. Nothing is connected before Connect().
    /// @param server_uri  as MQTTAsync_create takes it, "tcp://host:port". One that Paho refuses is logged,
    ///                    and the client that comes back never connects.
    /// @param client_id   MQTT client identifier (MQTT 3.1.1 section 3.1.3.1), unique at the broker.
    /// @param username    sent with every connect, even when empty.
    /// @param password    likewise.
    /// @throws std::system_error or Poco::SystemException if a thread can't be started.
    static std::shared_ptr<MqttClient> createInstance(std::string server_uri, std::string client_id,
                                                      std::string username, std::string password);

    /// A client that no std::shared_ptr owns can't Connect(): use createInstance().
    MqttClient(std::string server_uri, std::string client_id, std::string username, std::string password);
    ~MqttClient();
    MqttClient(const MqttClient&) = delete;
    MqttClient& operator=(const MqttClient&) = delete;

    /// Stores the two callbacks and starts one attempt to connect, whatever the present state; returns at
    /// once. May be called again at any time. The setters further down take no lock: use them before the
    /// first Connect().
    /// @param on_connect  told the result of each attempt, those of reconnections too: 0, Paho's code, or -1. An
    ///                    attempt that finds no handle or no thread is only logged.
    ///                    Runs on a Paho thread (see above); when Paho refuses to start an attempt, on a pool
    ///                    thread with the connection's lock held, where the same calls are forbidden. Its
    ///                    result is ignored. May be empty.
    /// @param on_lost     told the cause of each lost connection, often empty; on a Paho thread. Its result
    ///                    is ignored. May be empty.
    /// @throws std::bad_weak_ptr if no std::shared_ptr owns the client, or none does any more (with
    ///         kSafeLifetime it then returns); the callbacks are stored even so. A callback that may run while
    ///         its client ends calls through a std::weak_ptr.
    void Connect(std::function<bool(int)> on_connect, std::function<bool(const std::string&)> on_lost);

    /// Asks the broker to end the connection; what is in flight gets up to 3 s, which this call does not wait
    /// for. (It waits for its turn, up to 6 s while a handle is being replaced.) Threads, queue and
    /// subscriptions stay, and Connect() may follow; Paho refuses that until the old connection has ended. A
    /// reconnection that is already scheduled is not cancelled. Failures are logged.
    void Disconnect();

    /// @return true while the link is up.
    bool IsConnected();

    /// Adds a handler for a topic filter and subscribes it at the broker, on a pool thread; without a
    /// connection the next connect success does it, at QoS 1. Every reconnection subscribes at QoS 1 (with
    /// kKeepQos at the highest QoS asked for the filter, and a refusal by the broker is logged at ERROR).
    /// Failures are only logged. If the pool is full the work is done on the calling thread, which may then
    /// wait for a running connection step.
    /// @param handler  runs on a pool thread; what it throws is dropped. Add one for each call: a second call
    ///                 for a filter adds a second handler.
    /// @param topic    MQTT topic filter. Inbound topics are looked up by the exact key; failing that, by the
    ///                 text in front of the first "/#" or else "/+", as a plain prefix, first match only:
    ///                 "a/+/c" also gets "a/b/d" and "abc", while "#" and "+/x" get nothing. With
    ///                 kTopicMatching: all filters that match by MQTT 3.1.1 section 4.7.
    /// @param qos      0, 1 or 2 (MQTT 3.1.1 section 4.3).
    void Subscribe(MessageHandler handler, std::string topic, int qos);

    /// As above, for payloads that are JSON objects. An empty payload is passed over in silence, anything
    /// else that is no JSON object with one ERROR line. A Poco::Exception out of the handler or the gate is logged
    /// at ERROR, too.
    void Subscribe(JsonHandler handler, std::string topic, int qos);

    /// Forgets all handlers of `topic`, the key as it was given to Subscribe(), and tells the broker if there
    /// is a connection. Without a Paho client nothing is forgotten. Failures are only logged. Waits for a
    /// running connection step, up to 6 s.
    void Unsubscribe(std::string topic);

    /// Hands one message to Paho, which copies it. Nothing is queued or tried again by the library.
    /// @param payload   the body, zero bytes included. Note the order: payload first, topic second.
    /// @param topic     a topic name, without wildcards (MQTT 3.1.1 section 4.7).
    /// @param qos       0, 1 or 2; passed on unchecked.
    /// @param retained  0 or 1; passed on unchecked.
    /// @param reserved  ignored.
    /// @return true if Paho took it; delivery is told by the callback of SetDeliveryCompleteCallback() or an
    ///         ERROR line. False without a connection or when Paho refuses it, which is logged unless there
    ///         was no connection from the start.
    bool PublishMessage(std::string payload, std::string topic, int qos, int retained, int reserved);

    /// Throws away everything that waits in the inbound queue.
    /// With an empty queue it does nothing. Settled: with entries it releases each payload twice, which the
    /// platform's allocator answers by ending the process. Do not call it on a queue that may hold messages,
    /// unless kSingleRelease is set.
    void EmergencyClear();

    /// @return a copy of the client identifier; logs it.
    std::string getstation();

    /// @param callback  told the token of each message that was delivered as its QoS asks; on a Paho thread.
    ///                  May be empty. Not to be changed while messages are in flight.
    void SetDeliveryCompleteCallback(std::function<void(int)> callback);

    /// Stored for the host's use; the library never calls it.
    void setMessageReceiveTailorCallback(std::function<void(const Poco::JSON::Object::Ptr&)> callback);
    /// Stored for the host's use; the library never calls it.
    void setMessagePushSpliceCallback(std::function<void(std::string&)> callback);

    /// @param callback  the gate in front of JSON handlers: gets the object, the topic and the subscription's
    ///                  QoS, on a pool thread. 1 lets the message through, any other result drops it in
    ///                  silence. May be empty.
    void setMsgFwdHandlerCallback(
        std::function<unsigned char(const Poco::JSON::Object&, std::string, int)> callback);

    /// Stored for the host's use; the library never reads it.
    void SetVehicleConn(bool vehicle_conn);

    /// @param link_type  1 lets heartbeats, telemetry, camera and audio APIs and "response" messages in; any
    ///                   other value, also the default 0, throws them away on arrival. Acts at once.
    void setLinkType(int link_type);

    /// @return true if topic or payload belong to the class of heartbeats and telemetry. Parses the payload
    ///         of every topic that doesn't tell by itself.
    bool IsTelemetryMessage(const std::string& topic, const std::string& payload);

    std::size_t GetQueueSize() const;        ///< entries waiting for a handler: at most 100,000
    std::size_t GetMemoryUsage() const;      ///< bytes charged for them: at most 400 MiB
    std::size_t GetDroppedMessages() const;  ///< refused at a limit so far, once for each handler refused

private:
    struct KRO_LOCAL Impl;
    friend struct MqttClientTestAccess;

    static ThreadPool& pool();  // of all clients

    void Create_l();   // takes client_mutex; on the constructor's thread, afterwards on the control thread
    void Connect_l();  // on the control thread
    void Attempt_l();  // on a pool thread; takes client_mutex
    void ScheduleReconnect(const std::string& reason);
    void StartOver_l(const std::string& reason);  // schedules what ends without an answer from Paho
    void Resubscribe_l(const std::weak_ptr<MqttClient>& weak);              // on the control thread
    void Reconnect_l(const std::weak_ptr<MqttClient>& weak, int delay_ms);  // on the control thread
    void Subscribe_l(const MessageHandler& handler, const std::string& topic, int qos);  // takes client_mutex

    // Paho's callbacks, on its threads with its lock held: none of them takes client_mutex.
    static void OnConnectSuccess(void* context, MQTTAsync_successData* response);
    static void OnConnectFailure(void* context, MQTTAsync_failureData* response);
    static void OnConnectionLost(void* context, char* cause);
    static int OnMessageArrived(void* context, char* topicName, int topicLen, MQTTAsync_message* message);
    static void OnPublishSuccess(void* context, MQTTAsync_successData* response);
    static void OnPublishFailure(void* context, MQTTAsync_failureData* response);
    static void OnResubscribeFailure(void* context, MQTTAsync_failureData* response);

    std::unique_ptr<Impl> impl;
};

}  // namespace kro

#endif
