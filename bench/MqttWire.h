#ifndef KRO_BENCH_MQTT_WIRE_H
#define KRO_BENCH_MQTT_WIRE_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace kro::bench
{
/// One end of an MQTT 3.1.1 connection on a socket of its own, with as little between the caller and the kernel
/// as can be: no thread, no queue. Ends the process when it can't be set up. For one thread.
class MqttWire
{
public:
    MqttWire() = default;
    ~MqttWire();
    MqttWire(const MqttWire&) = delete;
    MqttWire& operator=(const MqttWire&) = delete;

    /// As the broker. Listens on a loopback port of the system's choice; acceptOne() takes one client in.
    std::string listen();  ///< @return "tcp://127.0.0.1:port"
    void acceptOne();

    /// As a client, with the tests' credentials.
    void connect(const std::string& uri, const std::string& client_id);

    /// A whole PUBLISH packet. Its identifier, at QoS 1, stands at idOffset(topic, payload_bytes).
    static std::string publishPacket(const std::string& topic, const std::string& payload, int qos);
    static std::size_t idOffset(const std::string& topic, std::size_t payload_bytes);

    /// Blocks until the kernel has it. @return false if the other end has gone.
    bool send(const char* data, std::size_t bytes);
    /// Reads what has arrived and does what is to be done: answers connects, subscriptions, pings and
    /// publishes at QoS 1, and counts.
    /// @param wait  for at least something.
    /// @return false if the other end has gone.
    bool serve(bool wait);

    bool subscribed = false;
    std::uint64_t acknowledged = 0;  ///< PUBACKs seen
    std::uint64_t published = 0;     ///< PUBLISHes seen

private:
    void answer(unsigned char type, const unsigned char* body, std::size_t length);

    int listener = -1;
    int peer = -1;
    std::string unread;  // the head of a packet whose rest has not arrived
};
}  // namespace kro::bench

#endif
