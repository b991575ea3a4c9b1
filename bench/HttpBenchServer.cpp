// HttpBenchServer KIND [APIS]: prints the port that it got of the system, and serves one small JSON answer there
// until its input ends, for bench/http.py to load; our own kinds register APIS more beside it. HttpBenchServer
// --check: asks a server of each kind once,
// and fails if one answers other bytes.
#include <cstdlib>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPRequestHandler.h>
#include <Poco/Net/HTTPRequestHandlerFactory.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/Net/HTTPServer.h>
#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/StreamCopier.h>

#include "Safeguards.h"
#include "WebApiBasic.h"

#ifdef KRO_BENCH_HTTPLIB
#include <httplib.h>
#endif

namespace
{
const std::string kPath = "/index/api/status";
const std::string kAnswer = R"({"code":0,"load":0.25,"msg":"success","running":true,"uptime":86400})";

class Server
{
public:
    Server() = default;
    virtual ~Server() = default;
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;
    virtual int port() const = 0;
};

/// Listens on a port of the system's choice.
Poco::Net::ServerSocket listening()
{
    return Poco::Net::ServerSocket(Poco::Net::SocketAddress("127.0.0.1", 0), 256);
}

int s_more_apis = 0;

class RegisteredApi : public Server
{
public:
    explicit RegisteredApi(unsigned safeguards)
    {
        kro::setSafeguards(safeguards);
        for (int i = 0; i < s_more_apis; ++i)
            kro::WebApiBasic::instance()->apiRegist("/index/api/more/" + std::to_string(i));
        kro::WebApiBasic::instance()->apiRegist(
            kPath, [](Poco::Net::HTTPServerRequest&, Poco::Net::HTTPServerResponse&, const kro::ApiParams&,
                      Poco::JSON::Object& result) {
                result.set("code", 0);
                result.set("msg", "success");
                result.set("uptime", 86400);
                result.set("load", 0.25);
                result.set("running", true);
            });
        kro::WebApiBasic::instance()->start(socket);
    }
    ~RegisteredApi() override { kro::WebApiBasic::instance()->stop(); }
    int port() const override { return socket.address().port(); }

private:
    const Poco::Net::ServerSocket socket = listening();
};

/// The limit: POCO's server alone, with the same bytes sent in the same way.
class BarePoco : public Server
{
    struct Handler : Poco::Net::HTTPRequestHandler
    {
        void handleRequest(Poco::Net::HTTPServerRequest&, Poco::Net::HTTPServerResponse& response) override
        {
            response.setChunkedTransferEncoding(true);
            response.setContentType("application/json");
            response.send() << kAnswer;
        }
    };
    struct Factory : Poco::Net::HTTPRequestHandlerFactory
    {
        Poco::Net::HTTPRequestHandler* createRequestHandler(const Poco::Net::HTTPServerRequest&) override
        {
            return new Handler;
        }
    };

public:
    BarePoco() { server.start(); }
    ~BarePoco() override { server.stop(); }
    int port() const override { return server.port(); }

private:
    Poco::Net::HTTPServer server{new Factory, listening(), new Poco::Net::HTTPServerParams};
};

#ifdef KRO_BENCH_HTTPLIB
class CppHttplib : public Server
{
public:
    CppHttplib()
    {
        server.new_task_queue = [] { return new httplib::ThreadPool(32); };
        server.set_keep_alive_max_count(1u << 30);
        server.set_tcp_nodelay(true);
        server.Get(kPath, [](const httplib::Request&, httplib::Response& response) {
            response.set_content(kAnswer, "application/json");
        });
        bound_port = server.bind_to_any_port("127.0.0.1");
        if (bound_port <= 0) throw std::runtime_error("cannot bind");
        thread = std::thread([this] { server.listen_after_bind(); });
    }
    ~CppHttplib() override
    {
        server.stop();
        thread.join();
    }
    int port() const override { return bound_port; }

private:
    int bound_port = 0;
    httplib::Server server;
    std::thread thread;
};
#endif

using Maker = std::function<std::unique_ptr<Server>()>;

const std::map<std::string, Maker>& kinds()
{
    static const std::map<std::string, Maker> all = {
        {"registered", [] { return std::make_unique<RegisteredApi>(0); }},
        {"guarded", [] { return std::make_unique<RegisteredApi>(kro::kAllSafeguards); }},
        {"bare", [] { return std::make_unique<BarePoco>(); }},
#ifdef KRO_BENCH_HTTPLIB
        {"cpp-httplib", [] { return std::make_unique<CppHttplib>(); }},
#endif
    };
    return all;
}

bool check()
{
    bool good = true;
    for (const auto& [kind, make] : kinds()) {
        const auto server = make();
        Poco::Net::HTTPClientSession session("127.0.0.1", static_cast<Poco::UInt16>(server->port()));
        Poco::Net::HTTPRequest request(Poco::Net::HTTPRequest::HTTP_GET, kPath, "HTTP/1.1");
        session.sendRequest(request);
        Poco::Net::HTTPResponse response;
        std::string body;
        Poco::StreamCopier::copyToString(session.receiveResponse(response), body);
        if (body == kAnswer) continue;
        std::cerr << kind << " answers " << body << "\n";
        good = false;
    }
    return good;
}
}  // namespace

int main(int argc, char** argv)
{
    const std::string kind = argc > 1 ? argv[1] : "";
    if (kind == "--check") return check() ? 0 : 1;
    if (kind == "--kinds") {
        for (const auto& entry : kinds()) std::cout << entry.first << " " << kPath << " " << kAnswer << "\n";
        return 0;
    }
    if (argc > 2) s_more_apis = std::atoi(argv[2]);
    const auto maker = kinds().find(kind);
    if (maker == kinds().end()) {
        std::cerr << "usage: HttpBenchServer --check | --kinds | KIND [APIS]\n";
        return 2;
    }
    const auto server = maker->second();
    std::cout << server->port() << std::endl;
    std::cin.get();  // until whoever started it closes the pipe
    std::_Exit(0);   // without waiting for connections that are kept
}
