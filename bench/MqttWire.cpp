#include "MqttWire.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace kro::bench
{
namespace
{
enum Type : unsigned char  // the upper half of a packet's first byte
{
    CONNECT = 1,
    CONNACK,
    PUBLISH,
    PUBACK,
    SUBSCRIBE = 8,
    UNSUBSCRIBE = 10,
    PINGREQ = 12,
};

[[noreturn]] void giveUp(const char* what)
{
    std::perror(what);
    std::_Exit(3);
}

void appendText(std::string& to, const std::string& text)
{
    to += static_cast<char>(text.size() >> 8);
    to += static_cast<char>(text.size());
    to += text;
}

std::string packet(unsigned char first, const std::string& body)
{
    std::string whole(1, static_cast<char>(first));
    std::size_t length = body.size();
    do {
        const std::size_t low = length & 127;
        length >>= 7;
        whole += static_cast<char>(low | (length > 0 ? 128 : 0));
    } while (length > 0);
    return whole + body;
}

sockaddr_in loopback(int port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<in_port_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

void sendAtOnce(int socket)
{
    const int on = 1;
    setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}
}  // namespace

MqttWire::~MqttWire()
{
    if (peer >= 0) close(peer);
    if (listener >= 0) close(listener);
}

std::string MqttWire::listen()
{
    listener = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = loopback(0);
    socklen_t length = sizeof address;
    if (bind(listener, reinterpret_cast<sockaddr*>(&address), length) != 0 || ::listen(listener, 8) != 0 ||
        getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) != 0)
        giveUp("listen");
    return "tcp://127.0.0.1:" + std::to_string(ntohs(address.sin_port));
}

void MqttWire::acceptOne()
{
    peer = accept(listener, nullptr, nullptr);
    if (peer < 0) giveUp("accept");
    sendAtOnce(peer);
}

void MqttWire::connect(const std::string& uri, const std::string& client_id)
{
    peer = socket(AF_INET, SOCK_STREAM, 0);
    const sockaddr_in address = loopback(std::atoi(uri.substr(uri.rfind(':') + 1).c_str()));
    if (::connect(peer, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) giveUp("connect");
    sendAtOnce(peer);
    std::string body;
    appendText(body, "MQTT");
    body += {4, static_cast<char>(0xc2), 0, 90};  // 3.1.1; user name, password, clean session; 90 s
    for (const char* const text : {client_id.c_str(), "user", "secret"}) appendText(body, text);
    const std::string whole = packet(CONNECT << 4, body);
    send(whole.data(), whole.size());
    unsigned char reply[4];
    if (recv(peer, reply, sizeof reply, MSG_WAITALL) != sizeof reply || reply[3] != 0) giveUp("CONNACK");
}

std::string MqttWire::publishPacket(const std::string& topic, const std::string& payload, int qos)
{
    std::string body;
    appendText(body, topic);
    if (qos > 0) body += {0, 1};
    return packet(static_cast<unsigned char>(PUBLISH << 4 | qos << 1), body + payload);
}

std::size_t MqttWire::idOffset(const std::string& topic, std::size_t payload_bytes)
{
    return publishPacket(topic, std::string(payload_bytes, 'x'), 1).size() - payload_bytes - 2;
}

bool MqttWire::send(const char* data, std::size_t bytes)
{
    while (bytes > 0) {
        const ssize_t sent = ::send(peer, data, bytes, MSG_NOSIGNAL);
        if (sent <= 0) return false;
        data += sent;
        bytes -= static_cast<std::size_t>(sent);
    }
    return true;
}

void MqttWire::answer(unsigned char type, const unsigned char* body, std::size_t length)
{
    const std::string whole =
        packet(static_cast<unsigned char>(type << 4), {reinterpret_cast<const char*>(body), length});
    send(whole.data(), whole.size());
}

bool MqttWire::serve(bool wait)
{
    char chunk[64 << 10];
    const ssize_t got = recv(peer, chunk, sizeof chunk, wait ? 0 : MSG_DONTWAIT);
    const int on = 1;  // or a client that sends small packets without TCP_NODELAY waits 40 ms for the kernel
    setsockopt(peer, IPPROTO_TCP, TCP_QUICKACK, &on, sizeof on);
    if (got < 0) return errno == EAGAIN || errno == EINTR;
    if (got == 0) return false;
    unread.append(chunk, static_cast<std::size_t>(got));
    std::size_t at = 0;
    const auto* const bytes = reinterpret_cast<const unsigned char*>(unread.data());
    while (unread.size() - at >= 2) {
        std::size_t length = 0;
        std::size_t body = at + 1;
        for (int shift = 0;; shift += 7) {
            if (body == unread.size()) goto rest;
            length |= static_cast<std::size_t>(bytes[body] & 127) << shift;
            if ((bytes[body++] & 128) == 0) break;
        }
        if (unread.size() - body < length) break;
        const int qos = bytes[at] >> 1 & 3;
        switch (bytes[at] >> 4) {
            case CONNECT: {
                const unsigned char accepted[] = {0, 0};
                answer(CONNACK, accepted, sizeof accepted);
                break;
            }
            case PUBLISH:
                ++published;
                if (qos == 1) answer(PUBACK, bytes + body + 2 + (bytes[body] << 8 | bytes[body + 1]), 2);
                break;
            case PUBACK:
                ++acknowledged;
                break;
            case SUBSCRIBE: {
                const unsigned char granted[] = {bytes[body], bytes[body + 1], bytes[body + length - 1]};
                answer(SUBSCRIBE + 1, granted, sizeof granted);
                subscribed = true;
                break;
            }
            case UNSUBSCRIBE:
                answer(UNSUBSCRIBE + 1, bytes + body, 2);
                break;
            case PINGREQ:
                answer(PINGREQ + 1, bytes, 0);
                break;
            default:
                break;
        }
        at = body + length;
    }
rest:
    unread.erase(0, at);
    return true;
}
}  // namespace kro::bench
