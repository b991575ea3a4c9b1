#ifndef KRO_TESTS_RAW_HTTP_H
#define KRO_TESTS_RAW_HTTP_H

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/StreamSocket.h>

namespace kro::test
{
/// One end of a connection, byte for byte. A call waits 30 s at most, and then throws Poco::TimeoutException.
class Peer
{
public:
    explicit Peer(Poco::UInt16 port);  // connects to 127.0.0.1
    explicit Peer(const Poco::Net::StreamSocket& connected);

    /// @return false if the other end has closed.
    bool send(const std::string& text);

    /// @return the next request or reply as it came, head and body; less if the other end closes before.
    ///         Without length or chunks a request has no body, and a reply lasts to the end of the
    ///         connection.
    std::string message();
    std::string rest();  ///< everything up to the end of the connection; nothing more after a reset
    void finishSending() { socket.shutdownSend(); }
    void close() { socket.close(); }
    void reset()  ///< closes, and drops what is under way in either direction
    {
        socket.setLinger(true, 0);
        socket.close();
    }

private:
    bool receiveMore();

    Poco::Net::StreamSocket socket;
    std::string buffer;  // received, not handed out yet
};

std::string bodyOf(const std::string& message);  ///< without the head, chunks put together
std::string get(const std::string& path, const std::string& more_headers = "");  ///< the text of a GET
std::string post(const std::string& path, const std::string& body);              ///< the text of a POST

/// A server of one thread that takes one request from each connection, notes it, and has a script answer it.
class RawServer
{
public:
    using Script = std::function<void(Peer&)>;

    explicit RawServer(Script answer);
    explicit RawServer(std::string reply);
    ~RawServer();

    std::vector<std::string> requests() const;  ///< one for each connection, in order
    std::string url(const std::string& path) const;

private:
    void serve();

    Poco::Net::ServerSocket listener;
    const Script script;
    std::atomic<bool> stopped{false};
    mutable std::mutex seen_mutex;  // guards seen
    std::vector<std::string> seen;
    std::thread server;
};

/// A port of 127.0.0.1 on which nobody listens; held until the object goes, so that nobody else gets it.
class ClosedPort
{
public:
    ClosedPort() { socket.bind(Poco::Net::SocketAddress("127.0.0.1", 0)); }
    Poco::UInt16 port() const { return socket.address().port(); }

private:
    Poco::Net::ServerSocket socket;
};
}  // namespace kro::test

#endif
