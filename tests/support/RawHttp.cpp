#include "support/RawHttp.h"

#include <algorithm>
#include <cctype>
#include <utility>

#include <Poco/Exception.h>
#include <Poco/Timespan.h>

namespace kro::test
{
namespace
{
const std::string kHeadEnd = "\r\n\r\n";
const Poco::Timespan kDeadline(30, 0);

/// The value of a header in lower case, or nothing.
std::string header(std::string head, const std::string& name)
{
    std::transform(head.begin(), head.end(), head.begin(), [](unsigned char c) { return std::tolower(c); });
    const auto at = head.find("\r\n" + name + ": ");
    if (at == std::string::npos) return {};
    const auto begin = at + name.size() + 4;
    return head.substr(begin, head.find("\r\n", begin) - begin);
}

bool chunked(const std::string& head)
{
    return header(head, "transfer-encoding") == "chunked";
}
}  // namespace

Peer::Peer(Poco::UInt16 port)
{
    socket.connect(Poco::Net::SocketAddress("127.0.0.1", port), kDeadline);
    socket.setReceiveTimeout(kDeadline);
    socket.setSendTimeout(kDeadline);
}

Peer::Peer(const Poco::Net::StreamSocket& connected) : socket(connected)
{
    socket.setReceiveTimeout(kDeadline);
    socket.setSendTimeout(kDeadline);
}

bool Peer::send(const std::string& text)
{
    try {
        for (std::size_t sent = 0; sent < text.size();)
            sent += static_cast<std::size_t>(
                socket.sendBytes(text.data() + sent, static_cast<int>(text.size() - sent)));
        return true;
    } catch (const Poco::IOException&) {  // reset by the other end; a time-out is no IOException
        return false;
    }
}

bool Peer::receiveMore()
{
    char part[65536];
    try {
        const int count = socket.receiveBytes(part, sizeof part);
        if (count > 0) buffer.append(part, static_cast<std::size_t>(count));
        return count > 0;
    } catch (const Poco::IOException&) {
        return false;
    }
}

std::string Peer::message()
{
    while (buffer.find(kHeadEnd) == std::string::npos)
        if (!receiveMore()) return std::exchange(buffer, {});
    const std::string head = buffer.substr(0, buffer.find(kHeadEnd) + kHeadEnd.size());
    std::size_t end = head.size();
    if (const std::string length = header(head, "content-length"); !length.empty()) {
        end += std::stoul(length);
        while (buffer.size() < end && receiveMore()) {
        }
    } else if (chunked(head)) {
        const std::string last = "0\r\n\r\n";
        std::size_t at = 0;
        while ((at = buffer.find("\r\n" + last, head.size() - 2)) == std::string::npos && receiveMore()) {
        }
        end = at == std::string::npos ? buffer.size() : at + 2 + last.size();
    } else if (head.compare(0, 5, "HTTP/") == 0 && head.compare(9, 3, "100") != 0) {
        return rest();
    }
    end = std::min(end, buffer.size());
    std::string taken = buffer.substr(0, end);
    buffer.erase(0, end);
    return taken;
}

std::string Peer::rest()
{
    while (receiveMore()) {
    }
    return std::exchange(buffer, {});
}

std::string bodyOf(const std::string& message)
{
    const auto head_end = message.find(kHeadEnd);
    if (head_end == std::string::npos) return {};
    const std::string rest = message.substr(head_end + kHeadEnd.size());
    if (!chunked(message.substr(0, head_end + 2))) return rest;
    std::string body;
    for (std::size_t at = 0; at < rest.size();) {
        const std::size_t length = std::stoul(rest.substr(at), nullptr, 16);
        at = rest.find("\r\n", at) + 2;
        body += rest.substr(at, length);
        at += length + 2;
    }
    return body;
}

std::string get(const std::string& path, const std::string& more_headers)
{
    return "GET " + path + " HTTP/1.1\r\nHost: test\r\n" + more_headers + "\r\n";
}

std::string post(const std::string& path, const std::string& body)
{
    return "POST " + path + " HTTP/1.1\r\nHost: test\r\nContent-Length: " + std::to_string(body.size()) +
           "\r\n\r\n" + body;
}

RawServer::RawServer(Script answer)
    : listener(Poco::Net::SocketAddress("127.0.0.1", 0)),
      script(std::move(answer)),
      server([this] { serve(); })
{}

RawServer::RawServer(std::string reply)
    : RawServer([reply = std::move(reply)](Peer& peer) { peer.send(reply); })
{}

RawServer::~RawServer()
{
    stopped = true;
    server.join();
}

std::vector<std::string> RawServer::requests() const
{
    const std::lock_guard<std::mutex> lock(seen_mutex);
    return seen;
}

std::string RawServer::url(const std::string& path) const
{
    return "http://127.0.0.1:" + std::to_string(listener.address().port()) + path;
}

void RawServer::serve()
{
    while (!stopped) {
        if (!listener.poll(Poco::Timespan(20'000), Poco::Net::Socket::SELECT_READ)) continue;
        Peer peer(listener.acceptConnection());
        const std::string request = peer.message();
        {
            const std::lock_guard<std::mutex> lock(seen_mutex);
            seen.push_back(request);
        }
        script(peer);
        peer.close();
    }
}

}  // namespace kro::test
