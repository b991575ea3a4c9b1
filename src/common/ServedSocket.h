#ifndef KRO_SERVED_SOCKET_H
#define KRO_SERVED_SOCKET_H

#include <cstddef>
#include <string_view>

#include <Poco/Net/StreamSocket.h>
#include <Poco/Net/StreamSocketImpl.h>
#include <Poco/Timespan.h>

namespace kro::detail
{
/// An accepted connection that asks the system for no more than it needs. To POCO's classes it is as any
/// other: but its wait for a request is the receiving of it, where POCO's takes five calls for the two, and
/// what has been received may be looked at before anybody reads it. Of one thread.
class ServedSocket : public Poco::Net::StreamSocketImpl
{
public:
    /// @throws Poco::Net::NetException if the other end is gone already, and has no address.
    explicit ServedSocket(const Poco::Net::StreamSocket& accepted);

    std::string_view ahead() const { return {received + begin, end - begin}; }  ///< until the next call
    void consume(std::size_t bytes) { begin += bytes; }                         ///< of ahead()

    bool poll(const Poco::Timespan& timeout, int mode) override;
    using StreamSocketImpl::receiveBytes;
    int receiveBytes(void* buffer, int length, int flags) override;
    void setReceiveTimeout(const Poco::Timespan& timeout) override { receive_timeout = timeout; }
    Poco::Timespan getReceiveTimeout() override { return receive_timeout; }
    Poco::Net::SocketAddress address() override { return own_address; }
    Poco::Net::SocketAddress peerAddress() override { return peer_address; }
    void close() override;

protected:
    ~ServedSocket() override;

private:
    bool receive(int flags);  // into `received`; false if nothing has come in time
    void waitAtMost(const Poco::Timespan& timeout);

    Poco::Net::StreamSocket owner;  // of the descriptor, and who closes it
    const Poco::Net::SocketAddress own_address;
    const Poco::Net::SocketAddress peer_address;
    Poco::Timespan receive_timeout;     // what was asked for
    Poco::Timespan system_timeout{-1};  // what the system was told; -1 for nothing yet
    char received[16384];               // by poll()
    std::size_t begin = 0;              // of what nobody has taken yet
    std::size_t end = 0;
    bool over = false;  // poll() has met the end of the connection, or an error
};
}  // namespace kro::detail

#endif
