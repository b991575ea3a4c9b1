// The HTTP client beside its limits: a raw socket that connects for each request and sends the same bytes,
// and the same socket with the client's time-outs set on it, which no client that keeps them can leave out.
#include <benchmark/benchmark.h>

#include <atomic>
#include <future>
#include <iostream>
#include <istream>
#include <stdexcept>
#include <string>
#include <thread>

#include <Poco/Exception.h>
#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/StreamSocket.h>
#include <Poco/Timespan.h>

#include "HttpClient.h"

namespace
{
/// Answers each connection's one request, and leaves the closing to the client.
class OneShotServer
{
public:
    OneShotServer() : thread([this] { serve(); }) {}
    ~OneShotServer()
    {
        stopped = true;
        thread.join();
    }
    OneShotServer(const OneShotServer&) = delete;
    OneShotServer& operator=(const OneShotServer&) = delete;
    Poco::Net::SocketAddress address() const { return listener.address(); }
    std::string host() const { return address().toString(); }

private:
    void serve()
    {
        const std::string reply = "HTTP/1.1 200 OK\r\nContent-Length: 11\r\n\r\n{\"code\": 0}";
        char request[4096];
        while (!stopped) {
            if (!listener.poll(Poco::Timespan(50'000), Poco::Net::Socket::SELECT_READ)) continue;
            try {
                Poco::Net::StreamSocket peer = listener.acceptConnection();
                if (peer.receiveBytes(request, sizeof request) <= 0) continue;
                peer.sendBytes(reply.data(), static_cast<int>(reply.size()));
                while (peer.receiveBytes(request, sizeof request) > 0) {
                }
            } catch (const Poco::Exception& e) {  // a connection that is reset must not end the program
                std::cerr << e.displayText() << "\n";
            }
        }
    }

    Poco::Net::ServerSocket listener{Poco::Net::SocketAddress("127.0.0.1", 0)};
    std::atomic<bool> stopped{false};
    std::thread thread;
};

OneShotServer& server()
{
    static OneShotServer one;
    return one;
}

const kro::HttpResponseCallback kRead = [](auto status, std::istream& body) {
    char text[64];
    body.read(text, sizeof text);
    if (status != 200 || body.gcount() != 11) throw std::runtime_error("a wrong answer");
};

void rawRequests(benchmark::State& state, const std::string& request, bool with_timeouts = false)
{
    char reply[4096];
    const Poco::Timespan io_timeout(10, 0);
    for (auto _ : state) {
        Poco::Net::StreamSocket socket;
        if (with_timeouts) {
            socket.connect(server().address(), Poco::Timespan(2, 0));
            socket.setReceiveTimeout(io_timeout);
            socket.setSendTimeout(io_timeout);
        } else {
            socket.connect(server().address());
        }
        socket.sendBytes(request.data(), static_cast<int>(request.size()));
        if (socket.receiveBytes(reply, sizeof reply) > 0) continue;
        state.SkipWithError("no answer");
        break;
    }
}

std::string getText()
{
    return "GET /report HTTP/1.1\r\nHost: " + server().host() + "\r\nConnection: Close\r\n\r\n";
}

void BM_RawSocketGet(benchmark::State& state)
{
    rawRequests(state, getText());
}
BENCHMARK(BM_RawSocketGet)->UseRealTime();

void BM_RawSocketGetWithTimeouts(benchmark::State& state)
{
    rawRequests(state, getText(), true);
}
BENCHMARK(BM_RawSocketGetWithTimeouts)->UseRealTime();

void BM_HttpClientGet(benchmark::State& state)
{
    const auto client = kro::HttpClient::defaultHttpClient();
    const std::string url = "http://" + server().host() + "/report";
    for (auto _ : state) client->do_http_request(url, kRead);
}
BENCHMARK(BM_HttpClientGet)->UseRealTime();

void BM_HttpClientGetOnThePool(benchmark::State& state)
{
    const auto client = kro::HttpClient::defaultHttpClient();
    const std::string url = "http://" + server().host() + "/report";
    for (auto _ : state) {
        std::promise<void> done;
        client->doHttpRequest(url, [&](auto status, std::istream& body) {
            kRead(status, body);
            done.set_value();
        });
        done.get_future().wait();
    }
}
BENCHMARK(BM_HttpClientGetOnThePool)->UseRealTime();

std::string postText()
{
    return "POST /report HTTP/1.1\r\nContent-Type: application/json\r\nContent-Length: 10\r\nHost: " +
           server().host() + "\r\n\r\n{\"code\":0}";
}

void BM_RawSocketPost(benchmark::State& state)
{
    rawRequests(state, postText());
}
BENCHMARK(BM_RawSocketPost)->UseRealTime();

void BM_RawSocketPostWithTimeouts(benchmark::State& state)
{
    rawRequests(state, postText(), true);
}
BENCHMARK(BM_RawSocketPostWithTimeouts)->UseRealTime();

void BM_HttpClientPost(benchmark::State& state)
{
    const auto client = kro::HttpClient::defaultHttpClient();
    const std::string url = "http://" + server().host() + "/report";
    for (auto _ : state) client->doHttpRequestSync(url, R"({"code":0})", kRead);
}
BENCHMARK(BM_HttpClientPost)->UseRealTime();
}  // namespace

BENCHMARK_MAIN();
