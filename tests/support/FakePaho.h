#ifndef KRO_TESTS_FAKE_PAHO_H
#define KRO_TESTS_FAKE_PAHO_H

#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <MQTTAsync.h>

namespace kro::test
{
/// Stands in for Paho at link time: a test program that has FakePaho.cpp defines the MQTTAsync_* functions
/// itself. Calls are recorded, return codes scripted, and callbacks fired from one thread that holds a global
/// recursive mutex, as the real library does; every MQTTAsync_* function takes that mutex too.
class FakePaho
{
public:
    static FakePaho& instance();

    /// Forgets calls, scripts and what was answered; to be called with no handle alive.
    void reset();

    // What the library did: "create tcp://... id", "subscribe topic qos", "destroy" and so on, in order.
    std::vector<std::string> calls() const;
    std::size_t count(const std::string& call) const;
    std::size_t countPrefix(const std::string& prefix) const;
    MQTTAsync_connectOptions lastConnect() const;  ///< user name and password point at the client's strings
    std::string lastPayload() const;               ///< of sendMessage
    int unfreed() const;                           ///< delivered messages and topics that nobody has freed

    /// The next call of `function` returns `code`; several are used in order, then it is 0 again.
    void script(const std::string& function, int code);
    /// Runs `hook` inside each call of `function`, before the mutex is taken. Empty ends it.
    void onCall(const std::string& function, std::function<void()> hook);
    /// Answers each connect and each disconnect by itself; both are on at first.
    void answerConnects(bool on);
    void answerDisconnects(bool on);

    // Each fires a callback of the newest handle on the callback thread, and waits until it has returned
    // unless told not to. Without a living handle they do nothing.
    void connectSucceeds();
    void connectFails(const int* code);  ///< null: no response structure
    void loseConnection(const char* cause, bool wait = true);
    void deliver(const std::string& topic, const std::string& payload, int qos = 0, bool wait = true);
    void deliverRaw(const char* topic, MQTTAsync_message* message);  ///< as it stands, nulls included
    void deliverNowhere(const std::string& topic);                   ///< with a null context
    void publishSucceeds(int token, bool with_response = true);
    void publishFails(int code, const char* text, bool with_response = true);

    // The functions themselves, called by the definitions of MQTTAsync_*.
    int create(MQTTAsync* handle, const char* uri, const char* id, int persistence);
    int setCallbacks(MQTTAsync handle, void* context, MQTTAsync_connectionLost* lost,
                     MQTTAsync_messageArrived* arrived);
    int connect(MQTTAsync handle, const MQTTAsync_connectOptions& options);
    int disconnect(MQTTAsync handle, const MQTTAsync_disconnectOptions& options);
    int request(MQTTAsync handle, const std::string& function, const std::string& call);
    int send(MQTTAsync handle, const char* topic, const MQTTAsync_message& message,
             const MQTTAsync_responseOptions& options);
    void destroy(MQTTAsync* handle);
    void freed(int pieces);

private:
    struct Handle
    {
        void* context = nullptr;
        MQTTAsync_connectionLost* lost = nullptr;
        MQTTAsync_messageArrived* arrived = nullptr;
        MQTTAsync_connectOptions connect{};
        MQTTAsync_responseOptions publish{};
    };

    FakePaho();
    Handle& living(MQTTAsync handle);  // ends the process with a word if there is none; paho_mutex held
    int record(const std::string& function, const std::string& call);
    void fire(std::function<void()> callback, bool wait);
    void fireOnNewest(const std::function<void(Handle&)>& callback, bool wait);
    void callbackThread();

    std::recursive_mutex paho_mutex;       // as Paho's own: guards handles; held across each callback
    std::map<MQTTAsync, Handle*> handles;  // living ones
    MQTTAsync newest = nullptr;            // guarded by paho_mutex
    mutable std::mutex state_mutex;        // guards all below; a leaf
    std::condition_variable state_cv;
    std::deque<std::function<void()>> events;  // for the callback thread
    std::vector<std::string> recorded;
    std::map<std::string, std::deque<int>> codes;
    std::map<std::string, std::function<void()>> hooks;
    MQTTAsync_connectOptions last_connect{};
    std::string last_payload;
    int pieces_out = 0;
    bool auto_connect = true;
    bool auto_disconnect = true;
};
}  // namespace kro::test

#endif
