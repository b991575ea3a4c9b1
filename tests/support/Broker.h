#ifndef KRO_TESTS_BROKER_H
#define KRO_TESTS_BROKER_H

#include <sys/types.h>

#include <string>

namespace kro::test
{
/// A mosquitto of the test's own: on a free loopback port, with user "user" and password "secret", its files
/// in a folder that goes with the process. Every failure to set it up throws std::runtime_error.
class Broker
{
public:
    Broker();
    ~Broker();
    Broker(const Broker&) = delete;
    Broker& operator=(const Broker&) = delete;

    void start();  ///< on the same port as before; returns when it accepts connections
    void kill();   ///< at once, as a crash would

    std::string uri() const { return "tcp://127.0.0.1:" + std::to_string(port); }

    /// Runs mosquitto_pub with this broker's address and credentials, and waits for its end.
    void publish(const std::string& arguments) const;

private:
    std::string folder;
    int port = 0;
    pid_t process = -1;
};
}  // namespace kro::test

#endif
