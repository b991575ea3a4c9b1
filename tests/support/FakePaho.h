#ifndef KRO_TESTS_FAKE_PAHO_H
#define KRO_TESTS_FAKE_PAHO_H

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>

#include <MQTTAsync.h>

#include "support/Recorder.h"

namespace kro::test
{
/// Stands in for Paho at link time: a test program that has FakePaho.cpp defines the MQTTAsync_* functions itself.
/// Calls are recorded, return codes scripted, and callbacks fired from one thread that holds a global recursive
/// mutex, as the real library does; every function takes that mutex too. A call with a handle that is null or
/// destroyed ends the process, but for a publish, which may meet one.
class FakePaho
{
public:
    struct Handle
    {
        void* context = nullptr;
        MQTTAsync_connectionLost* lost = nullptr;
        MQTTAsync_messageArrived* arrived = nullptr;
        MQTTAsync_connectOptions connect{};   // of the last connect: names point at the client's strings
        MQTTAsync_responseOptions publish{};  // of the last send
        std::map<std::string, MQTTAsync_responseOptions> subscribed;  // by topic, of the last subscribe
    };

    static FakePaho& instance();

    /// Forgets calls, scripts and hooks, and lets callbacks under way come to their end.
    void reset();
    /// The next call of `function` returns `code`; several are used in order, then it is 0 again.
    void script(const std::string& function, int code);
    /// Runs `hook` inside each call of `function`, with no mutex held. Empty ends it.
    void onCall(const std::string& function, std::function<void()> hook);
    /// Calls back for the newest handle on the callback thread, if it lives and has its callbacks.
    void fire(std::function<void(Handle&)> callback, bool wait = true);

    void connectSucceeds();
    void connectFails(MQTTAsync_failureData* data);
    void loseConnection(const char* cause, bool wait = true);
    /// As a broker does that allows no such subscription (MQTT 3.1.1 section 3.9.3).
    void refuseSubscription(const std::string& topic);
    void deliver(const std::string& topic, const std::string& payload, int qos = 0);

    /// @return what `function` is to return.
    int record(const std::string& function, const std::string& arguments = {});
    Handle& living(MQTTAsync handle);                      // paho_mutex held
    void post(std::function<void()> callback, bool wait);  // on the callback thread, under paho_mutex

    Recorder<std::string> calls;     // "subscribe topic qos", "destroy" and so on, in order
    std::string last_payload;        // of a send; guarded by paho_mutex
    std::atomic<int> unfreed{0};     // messages and topics handed out that nobody has freed
    std::atomic<int> lost_sends{0};  // with a handle that is null or destroyed
    std::atomic<bool> answer_connects{true};
    std::atomic<bool> answer_disconnects{true};

    std::recursive_mutex paho_mutex;      // as Paho's own: guards handles; held across each callback
    std::map<MQTTAsync, Handle> handles;  // living ones
    MQTTAsync newest = nullptr;

private:
    FakePaho();

    std::mutex mutex;  // guards all below; a leaf
    std::condition_variable posted;
    std::deque<std::function<void()>> events;
    std::map<std::string, std::deque<int>> codes;
    std::map<std::string, std::function<void()>> hooks;
};
}  // namespace kro::test

#endif
