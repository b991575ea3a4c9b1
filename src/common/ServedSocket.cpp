#include "ServedSocket.h"

#include <sched.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace kro::detail
{
namespace
{
constexpr int kLooksBeforeSleep = 2;  // each costs an idle connection about half a microsecond
}

ServedSocket::ServedSocket(const Poco::Net::StreamSocket& accepted)
    : owner(accepted), own_address(owner.address()), peer_address(owner.peerAddress())
{
    // Last: if an address is missing the base must not have the owner's descriptor, which it would close.
    reset(owner.impl()->sockfd());
}

ServedSocket::~ServedSocket()
{
    reset();  // else the base closes the owner's descriptor
}

void ServedSocket::close()
{
    reset();
    owner.close();
}

void ServedSocket::waitAtMost(const Poco::Timespan& timeout)
{
    if (timeout == system_timeout) return;
    StreamSocketImpl::setReceiveTimeout(timeout);
    system_timeout = timeout;
}

bool ServedSocket::poll(const Poco::Timespan& timeout, int mode)
{
    if (mode != SELECT_READ || timeout <= 0) return StreamSocketImpl::poll(timeout, mode);
    if (begin < end || over) return true;
    // A busy client's next request is near: letting the other threads run meanwhile is cheaper than going to
    // sleep and being woken.
    for (int look = 0; look < kLooksBeforeSleep; ++look) {
        if (receive(MSG_DONTWAIT)) return true;
        sched_yield();
    }
    waitAtMost(timeout);
    return receive(0);
}

bool ServedSocket::receive(int flags)
{
    ssize_t count = 0;
    do count = ::recv(sockfd(), received, sizeof received, flags);
    while (count < 0 && errno == EINTR);
    if (count < 0 && errno == EAGAIN) return false;
    over = count <= 0;
    begin = 0;
    end = over ? 0 : static_cast<std::size_t>(count);
    return true;
}

int ServedSocket::receiveBytes(void* buffer, int length, int flags)
{
    if (begin < end) {
        const std::size_t count = std::min(static_cast<std::size_t>(length), end - begin);
        std::memcpy(buffer, received + begin, count);
        if ((flags & MSG_PEEK) == 0) consume(count);
        return static_cast<int>(count);
    }
    if (over) return 0;
    waitAtMost(receive_timeout);
    return StreamSocketImpl::receiveBytes(buffer, length, flags);
}

}  // namespace kro::detail
