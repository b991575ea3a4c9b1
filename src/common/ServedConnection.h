#ifndef KRO_SERVED_CONNECTION_H
#define KRO_SERVED_CONNECTION_H

#include <Poco/Net/HTTPRequestHandlerFactory.h>
#include <Poco/Net/HTTPServerParams.h>
#include <Poco/Net/TCPServerConnectionFactory.h>

namespace kro::detail
{
/// Makes connections that serve as POCO's own do, with the same objects for the handler and the same bytes on
/// the wire, at a fraction of the cost for the plain request: one that has arrived whole, GET or POST, its
/// body of known length. Where the first of another kind comes, POCO serves the rest of the connection; and
/// all of it on a secure socket, or where the requests of a connection are limited.
class ServedConnectionFactory : public Poco::Net::TCPServerConnectionFactory
{
public:
    ServedConnectionFactory(Poco::Net::HTTPServerParams::Ptr server_params,
                            Poco::Net::HTTPRequestHandlerFactory::Ptr handler_factory);
    Poco::Net::TCPServerConnection* createConnection(const Poco::Net::StreamSocket& socket) override;

private:
    Poco::Net::HTTPServerParams::Ptr params;
    Poco::Net::HTTPRequestHandlerFactory::Ptr factory;
};
}  // namespace kro::detail

#endif
