// The smallest web API host: three APIs on a port, until SIGINT or SIGTERM.
// web_host [PORT]
#include <csignal>
#include <string>

#include <Logger.h>
#include <Poco/Net/SocketAddress.h>
#include <Safeguards.h>
#include <WebApiBasic.h>

using Request = Poco::Net::HTTPServerRequest;
using Response = Poco::Net::HTTPServerResponse;

int main(int argc, char** argv)
{
    kro::setSafeguards(kro::kAllSafeguards);  // first: every request shall get an answer, whatever it asks
    // Blocked before there is any other thread, so that all inherit it and sigwait() gets the signal.
    sigset_t ends;
    sigemptyset(&ends);
    sigaddset(&ends, SIGINT);
    sigaddset(&ends, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &ends, nullptr);
    kro::loadLogging();  // before any other thread logs

    const Poco::Net::SocketAddress address("127.0.0.1:" + std::string(argc > 1 ? argv[1] : "9528"));
    const Poco::Net::ServerSocket socket(address);  // throws if the port is taken
    const auto web = kro::WebApiBasic::instance();
    web->apiRegist("/index/api/ping");  // answers success
    web->apiRegist("/index/api/greet",  // ?name=Ada
                   [](Request&, Response&, const kro::ApiParams& params, Poco::JSON::Object& result) {
                       const auto name = params.find("name");
                       result.set("code", 0).set("hello", name == params.end() ? "stranger" : name->second);
                   });
    web->apiRegist("/index/api/add",  // of a body such as {"a":1,"b":2}
                   [](Request&, Response&, const kro::ApiParams&, Poco::JSON::Object& result,
                      const Poco::JSON::Object& body) {
                       result.set("code", 0).set("sum", body.getValue<int>("a") + body.getValue<int>("b"));
                   });
    web->start(socket);

    int signal = 0;
    sigwait(&ends, &signal);
    web->stop();          // requests under way still get their answers
    kro::deleteLogger();  // last: nothing may log after it
}
