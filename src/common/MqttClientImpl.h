#ifndef KRO_MQTT_CLIENT_IMPL_H
#define KRO_MQTT_CLIENT_IMPL_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include <MQTTAsync.h>
#include <Poco/JSON/Object.h>

#include "HandlerPlaces.h"
#include "MqttClient++.h"
#include "TopicFilter.h"

namespace kro
{

/// States of the link, as MqttClient::Impl::connection_state holds them.
enum ConnectionState : std::int32_t
{
    Disconnected = 0,  // no link, and no attempt under way
    Connecting = 1,    // an attempt has been started, Paho's answer is outstanding
    Connected = 2,
    Reconnecting = 3,  // a reconnection is replacing the handle
};

/// Everything that a client is. Fields are destroyed from the last to the first.
///
/// Lock order: client_mutex before subscribe_mutex, queue_mutex and the one that makes and destroys handles;
/// queue_mutex before that of the places; every other mutex is a leaf. client_mutex and the one of the
/// handles are held across calls into Paho, and so no callback of Paho's may take them: Paho holds its own
/// lock there. Atomics
/// are flags and counters that threads look at one by one; where two must agree, the step that needs it says
/// so.
struct MqttClient::Impl
{
    /// One delivery of one message to one handler, with a payload array of its own.
    struct AsyncMessage
    {
        AsyncMessage(const MQTTAsync_message& received, std::string to_topic, std::string with_api,
                     MessageHandler to_handler);
        AsyncMessage(
            AsyncMessage&& other) noexcept;  // leaves `other` without payload: one owner for each array
        AsyncMessage& operator=(AsyncMessage&&) = delete;
        ~AsyncMessage();

        void handle();             // calls the handler; whatever it throws ends here
        std::size_t cost() const;  // what the entry counts for in memory_usage, in bytes

        MQTTAsync_message message = MQTTAsync_message_initializer;  // payload: new char[], owned
        std::string topic;                                          // as received, not the filter
        std::string api;  // the payload's "api" as classification found it, or empty
        MessageHandler handler;
    };

    /// Places for handlers in flight. It stands on the processor's stack, which may not go before every place
    /// is back.
    class HandlerGate
    {
    public:
        explicit HandlerGate(int places) : permits(places) {}
        void acquire();
        void release();  // the caller touches nothing of the gate afterwards

    private:
        int permits;
        std::mutex mutex;  // guards permits
        std::condition_variable released;
    };

    Impl(std::string uri, std::string id, std::string user, std::string pass);
    ~Impl();
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    void StartControlThread();
    void ControlLoop();
    /// Appends `task`; once the control loop has been told to stop, destroys it unrun. Any thread, Paho's
    /// included.
    void PostControlTask(std::function<void()> task);

    /// Each calls one of Connect's callbacks if it is set; takes control_mutex, and calls with it released.
    void TellConnectResult(int code);
    void TellConnectionLost(const std::string& cause);

    void StartMessageProcessor();  // client_mutex held
    void ProcessMessages();
    void HandOverFront(std::unique_lock<std::mutex>& queue_lock, HandlerGate& gate);  // queue_mutex held

    /// The processor with places: it starts workers, and they take the entries from the queue themselves.
    void ProcessInPlaces();
    /// False if there was no place or no thread. Waits for a place where there is nothing else to do.
    bool StartWorker(std::unique_lock<std::mutex>& queue_lock);  // queue_mutex held
    void Work();  // on a pool thread, with a place; ends with the queue, or when its place is wanted
    bool FallBehind_l() const;  // queue_mutex held
    /// Waits a moment for the next entry, which costs one wake where a new worker costs two and a start of the
    /// pool; in a flood even none. One worker of a client at a time does. @return whether there is one.
    bool Linger_l(std::unique_lock<std::mutex>& queue_lock, bool& flood);

    void Cleanup();  // takes client_mutex, and holds it for up to 6 s
    /// Ends the link of `handle`, which nobody else uses any more, as far as that can be done.
    void EndLink(MQTTAsync handle, std::promise<void>& ended);
    void ClearQueue();  // takes queue_mutex

    /// Whether a message is wanted at all; fills in `api`, and logs what is to be logged.
    bool Classify(const std::string& topic, const MQTTAsync_message* message, std::string& api) const;
    std::vector<MessageHandler> FindHandlers(const std::string& topic);  // takes subscribe_mutex
    void Admit(MessageHandler handler, const std::string& topic, const std::string& api,
               const MQTTAsync_message& message);  // takes queue_mutex

    bool isConnected() const { return connection_state == Connected; }

    std::string server_uri;
    std::string client_id;
    std::string username;
    std::string password;
    // Changed with client_mutex held; atomic because a publish looks at it before it takes the mutex.
    std::atomic<MQTTAsync> async_client{nullptr};
    // Settled: two fields tell whether the link is up. Subscribe and Unsubscribe look at `connected`, all
    // others at `connection_state`; they change one after the other, not together.
    std::atomic<bool> connected{false};
    std::atomic<bool> processor_started{false};
    std::atomic<bool> reconnecting{false};    // a reconnection owns the step from handle to attempt
    std::atomic<bool> stop_reconnect{false};  // set for good by ~Impl
    std::mutex client_mutex;     // serialises the use of async_client; held across calls into Paho
    std::mutex subscribe_mutex;  // guards subscribe_map; a leaf
    std::unordered_map<std::string, std::vector<MessageHandler>> subscribe_map;  // filter to its handlers
    // With kTopicMatching: the wildcard filters of subscribe_map, leading into it. Guarded by subscribe_mutex.
    detail::TopicTree<std::vector<MessageHandler>> wildcard_filters;
    // With kKeepQos: the highest QoS asked for each filter of subscribe_map. Guarded by subscribe_mutex.
    std::unordered_map<std::string, int> asked_qos;
    // With kKeepQos: what Paho's answers to the re-subscriptions of this handle are told to mean; they come
    // until the handle is destroyed, and only read. Changed with client_mutex held, and only at its end while
    // the handle lives.
    std::unordered_set<std::string> resubscribed;
    // With kSafeLifetime: publishes between the reading of async_client and their return from Paho.
    std::atomic<int> publishing{0};
    // Of the callbacks, the two of Connect are guarded by control_mutex, since a host may call it again at
    // any time. The others carry no lock: hosts set them before Connect, whose task carries them to the other
    // threads.
    std::function<bool(int)> connect_callback;
    std::function<bool(const std::string&)> connection_lost_callback;
    std::function<void(int)> delivery_complete_callback;
    std::function<void(const Poco::JSON::Object::Ptr&)>
        message_receive_tailor_callback;                             // held for hosts only
    std::function<void(std::string&)> message_push_splice_callback;  // held for hosts only
    std::function<unsigned char(const Poco::JSON::Object&, std::string, int)> msg_fwd_handler_callback;
    std::atomic<bool> vehicle_conn{false};  // held for hosts only
    std::atomic<std::int32_t> link_type{0};
    std::string reserved_text;  // stays empty
    std::atomic<std::int32_t> connection_state{Disconnected};
    std::atomic<std::int32_t> failure_count{0};  // failures and losses since the last success
    // The first and the last are guarded by control_mutex, the other belongs to the control thread.
    std::int64_t reconnect_base_delay = 1000;                    // milliseconds
    std::chrono::steady_clock::time_point last_connect_attempt;  // written and never read
    std::chrono::steady_clock::time_point last_connected_at;     // the clock's epoch until the first success
    std::atomic<bool> quick_retry{false};
    std::mutex reconnect_mutex;  // for the wait on reconnect_cv; guards nothing
    std::condition_variable reconnect_cv;
    std::thread message_processor_thread;
    std::deque<AsyncMessage> message_queue;
    std::mutex queue_mutex;  // guards message_queue, the fields down to naps, the processor's start
    std::condition_variable queue_cv;
    // Of ProcessInPlaces; null places stand for the settled processor. The first three are fixed.
    const bool drains_in_place;
    std::optional<detail::HandlerPlaces> own_places;
    detail::HandlerPlaces* const places;  // own ones, or those of all clients
    std::size_t workers = 0;              // on the pool, or on their way there
    std::size_t workers_to_come = 0;      // of these, those that have taken no entry yet
    std::size_t taken = 0;                // entries, since the processor has looked last
    bool processor_waits = false;         // for a need of workers; else it looks by itself
    bool lingers = false;                 // a worker waits on work_cv
    bool naps = false;                    // a worker lets entries gather, and comes by itself
    std::condition_variable work_cv;
    std::atomic<std::size_t> memory_usage{0};  // sum of the costs in message_queue
    std::atomic<std::size_t> dropped_messages{0};
    std::deque<std::function<void()>> control_tasks;
    std::mutex
        control_mutex;  // guards control_tasks, the change of control_running, Connect's callbacks and the two
                        // fields above that say so; a leaf
    std::condition_variable control_cv;
    std::atomic<bool> control_running{true};
    std::thread control_thread;
    std::shared_ptr<std::atomic<int>> in_flight_handlers;  // shared with the tasks on the pool
};

}  // namespace kro

#endif
