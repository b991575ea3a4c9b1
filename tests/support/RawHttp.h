#ifndef KRO_TESTS_RAW_HTTP_H
#define KRO_TESTS_RAW_HTTP_H

#include <atomic>
#include <thread>

#include <Poco/Net/ServerSocket.h>
#include <Poco/String.h>

#include "support/Recorder.h"

namespace kro::test
{
/// The value of a header in lower case, or nothing.
inline std::string header(const std::string& message, const std::string& name)
{
    const std::string head = Poco::toLower(message.substr(0, message.find("\r\n\r\n") + 2));
    const auto at = head.find("\r\n" + name + ": ");
    if (at == std::string::npos) return {};
    const auto begin = at + name.size() + 4;
    return head.substr(begin, head.find("\r\n", begin) - begin);
}

/// One end of a connection, byte for byte. A call waits 30 s at most, and then throws Poco::TimeoutException.
class Peer
{
public:
    explicit Peer(Poco::UInt16 port)
        : Peer(Poco::Net::StreamSocket(Poco::Net::SocketAddress("127.0.0.1", port)))
    {}
    explicit Peer(const Poco::Net::StreamSocket& connected) : socket(connected)
    {
        socket.setReceiveTimeout(Poco::Timespan(30, 0));
        socket.setSendTimeout(Poco::Timespan(30, 0));
    }

    /// @return false if the other end has closed.
    bool send(const std::string& text)
    {
        try {
            return socket.sendBytes(text.data(), static_cast<int>(text.size())) >= 0;
        } catch (const Poco::IOException&) {  // reset by the other end; a time-out is no IOException
            return false;
        }
    }

    /// @return the next request or reply as it came, head and body; less if the other end closes before.
    ///         Without length or chunks a request has no body, and a reply lasts to the end of the connection.
    std::string message()
    {
        std::string text = takeThrough("\r\n\r\n");
        if (const std::string length = header(text, "content-length"); !length.empty())
            return text + take(std::stoul(length));
        if (header(text, "transfer-encoding") == "chunked") return text + takeThrough("0\r\n\r\n");
        return text.compare(0, 5, "HTTP/") == 0 && text.compare(9, 3, "100") != 0 ? text + rest() : text;
    }
    std::string rest()  ///< everything up to the end of the connection; nothing more after a reset
    {
        while (receiveMore()) {
        }
        return std::exchange(buffer, {});
    }
    void finishSending() { socket.shutdownSend(); }
    void reset()  ///< closes, and drops what is under way in either direction
    {
        socket.setLinger(true, 0);
        socket.close();
    }

private:
    std::string take(std::size_t count)
    {
        while (buffer.size() < count && receiveMore()) {
        }
        std::string taken = buffer.substr(0, count);
        buffer.erase(0, count);
        return taken;
    }
    std::string takeThrough(const std::string& end)
    {
        std::size_t at = 0;
        while ((at = buffer.find(end)) == std::string::npos && receiveMore()) {
        }
        return take(at == std::string::npos ? buffer.size() : at + end.size());
    }
    bool receiveMore()
    {
        char part[65536];
        try {
            const int count = socket.receiveBytes(part, sizeof part);
            buffer.append(part, static_cast<std::size_t>(count));
            return count > 0;
        } catch (const Poco::IOException&) {
            return false;
        }
    }

    Poco::Net::StreamSocket socket;
    std::string buffer;  // received, not handed out yet
};

/// @return what follows the head, chunks put together.
inline std::string bodyOf(const std::string& message)
{
    const auto head_end = message.find("\r\n\r\n");
    if (head_end == std::string::npos) return {};
    const bool chunked = header(message, "transfer-encoding") == "chunked";
    std::string rest = message.substr(head_end + 4), body;
    while (chunked && !rest.empty()) {
        const std::size_t begin = rest.find("\r\n") + 2, length = std::stoul(rest, nullptr, 16);
        body += rest.substr(begin, length);
        rest.erase(0, begin + length + 2);
    }
    return chunked ? body : rest;
}

inline std::string get(const std::string& path, const std::string& more_headers = "")
{
    return "GET " + path + " HTTP/1.1\r\nHost: test\r\n" + more_headers + "\r\n";
}

inline std::string post(const std::string& path, const std::string& body)
{
    return "POST " + path + " HTTP/1.1\r\nHost: test\r\nContent-Length: " + std::to_string(body.size()) +
           "\r\n\r\n" + body;
}

/// A server of one thread that takes one request from each connection, notes it, and has a script answer it.
class RawServer
{
public:
    explicit RawServer(std::function<void(Peer&)> answer)
        : script(std::move(answer)), server([this] { serve(); })
    {}
    explicit RawServer(const std::string& reply) : RawServer([reply](Peer& peer) { peer.send(reply); }) {}
    ~RawServer()
    {
        stopped = true;
        server.join();
    }

    std::vector<std::string> requests() const { return seen.all(); }  ///< one for each connection, in order
    std::string authority() const { return listener.address().toString(); }
    std::string url(const std::string& path) const { return "http://" + authority() + path; }

private:
    void serve()
    {
        while (!stopped) {
            if (!listener.poll(Poco::Timespan(20'000), Poco::Net::Socket::SELECT_READ)) continue;
            Peer peer(listener.acceptConnection());
            seen.add(peer.message());
            script(peer);
        }
    }

    Poco::Net::ServerSocket listener{Poco::Net::SocketAddress("127.0.0.1", 0)};
    const std::function<void(Peer&)> script;
    Recorder<std::string> seen;
    std::atomic<bool> stopped{false};
    std::thread server;
};
}  // namespace kro::test

#endif
