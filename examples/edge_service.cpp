// A service of an edge device, as a host of the library: it logs, reads its configuration, answers JSON
// requests and reports raw payloads over MQTT, serves a few web APIs, reports to a web hook, and runs
// periodic tasks.
//
// It tells on standard output, line by line, what happens to it; ./run drives it from outside and reads
// those lines.
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <Config.h>
#include <Logger.h>
#include <MqttClient++.h>
#include <PeriodicTaskManager.h>
#include <Poco/Net/HTTPServerRequest.h>
#include <Poco/Net/HTTPServerResponse.h>
#include <Poco/Net/ServerSocket.h>
#include <Safeguards.h>
#include <WebApiBasic.h>
#include <WebHookBasic.h>

namespace
{

/// One line on standard output, whole and at once, from any thread.
void say(const std::string& line)
{
    static std::mutex mutex;
    const std::lock_guard<std::mutex> lock(mutex);
    std::cout << line << std::endl;
}

/// Payload bytes in hexadecimal, for a person to read.
std::string hexadecimal(const MQTTAsync_message& message)
{
    std::ostringstream out;
    const auto* const bytes = static_cast<const unsigned char*>(message.payload);
    for (int i = 0; i < message.payloadlen; ++i)
        out << (i > 0 ? " " : "") << std::hex << (bytes[i] >> 4) << (bytes[i] & 15);
    return out.str();
}

/// How many of this process's threads are a client's own.
int clientThreads()
{
    int found = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string name;
        std::getline(std::ifstream(task.path() / "comm"), name);
        if (name.rfind("kro-mqtt-", 0) == 0) ++found;
    }
    return found;
}

using namespace std::chrono_literals;

class EdgeService
{
public:
    EdgeService(const std::string& broker, const std::string& user, const std::string& password)
        : link(kro::MqttClient::createInstance(broker, "edge-" + std::to_string(getpid()), user, password)),
          client(link.get())
    {
        // Handlers may be added before there is a connection: each connect success subscribes them all. What
        // they capture is safe because stop() ends the client before this object goes.
        client->Subscribe([this](const Poco::JSON::Object& request, const std::string&) { answer(request); },
                          "/krono/edge/request", 1);
        client->Subscribe([this](MQTTAsync_message* message, const std::string&) { report(*message); },
                          "edge/raw", 1);
        client->Subscribe([](MQTTAsync_message*, const std::string& topic) { say("telemetry: " + topic); },
                          "edge/heartBeat", 1);
        client->Connect(
            [](int code) {
                say(code == 0 ? "connected" : "no connection, return code " + std::to_string(code));
                return true;
            },
            [](const std::string&) {
                say("connection lost");
                return true;
            });
        startWeb();
        startTasks();
    }

    /// The order of a host's end: first what brings work, then what does it.
    void stop()
    {
        hook.reset();
        kro::WebApiBasic::instance()->stop();
        stopTasks();
        // What has arrived is handed out, so the topics go first. Twice, because the second call waits for a
        // message that Paho is just bringing. Without safeguards a host has no choice: messages that wait
        // would end the process with the client.
        for (int round = 0; round < 2; ++round)
            for (const char* const topic : {"/krono/edge/request", "edge/raw", "edge/heartBeat"})
                client->Unsubscribe(topic);
        while (client->GetQueueSize() > 0) std::this_thread::sleep_for(10ms);
        say("threads of the client: " + std::to_string(clientThreads()));
        while (link.use_count() > 1) std::this_thread::sleep_for(10ms);  // a connection attempt may hold it
        link.reset();                                                    // waits for handlers
        // A joined thread is listed for a moment longer.
        for (int i = 0; i < 100 && clientThreads() > 0; ++i) std::this_thread::sleep_for(10ms);
        say("client ended, threads of the client: " + std::to_string(clientThreads()));
    }

private:
    void answer(const Poco::JSON::Object& request)
    {
        const auto api = request.optValue<std::string>("api", "");
        say("request: " + api);
        if (api == "openTelemetry") client->setLinkType(1);
        Poco::JSON::Object reply;
        reply.set("api", api).set("type", "response").set("id", request.optValue<int>("id", 0));
        std::ostringstream text;
        reply.stringify(text);
        if (!client->PublishMessage(text.str(), "edge/reply", 1, 0, 0)) say("the reply could not be sent");
    }

    void report(const MQTTAsync_message& message)
    {
        const std::string bytes = hexadecimal(message);
        say("raw: " + std::to_string(message.payloadlen) + " bytes: " + bytes);
        client->PublishMessage(bytes, "edge/raw/seen", 1, 0, 0);
    }

    void startTasks()
    {
        auto& manager = kro::PeriodicTaskManager::getInstance();
        const auto add = [&](std::string name, std::chrono::milliseconds period, std::function<void()> run,
                             std::chrono::milliseconds timeout) {
            const auto counted = [this, run = std::move(run)] {
                ++running;
                run();
                --running;
            };
            task_ids.push_back(manager.registerTask(name, period, counted, timeout));
        };
        add(
            "heartbeat", 1s, [this] { client->PublishMessage("alive", "edge/alive", 0, 0, 0); }, 0ms);
        add(
            "slow", 500ms, [] { std::this_thread::sleep_for(800ms); }, 0ms);
        add(
            "watched", 2s, [] { std::this_thread::sleep_for(100ms); }, 1s);
        manager.startPeriodMonitorTask();
    }

    void stopTasks()
    {
        auto& manager = kro::PeriodicTaskManager::getInstance();
        manager.stopPeriodMonitorTask();
        for (const unsigned int id : task_ids) manager.cancelTask(id);  // what has not begun never begins
        // The monitor ends within its interval, a tenth of the shortest period; what runs comes to its end.
        std::this_thread::sleep_for(100ms);
        while (running > 0) std::this_thread::sleep_for(10ms);
        say("periodic tasks ended");
    }

    /// One web API of each form, on the port that the configuration gives.
    void startWeb()
    {
        using Request = Poco::Net::HTTPServerRequest;
        using Response = Poco::Net::HTTPServerResponse;
        const auto port = static_cast<Poco::UInt16>(kro::configInstance()->getUInt(kro::http::kPort));
        // First of all, as this may fail: the port may be taken.
        const Poco::Net::ServerSocket socket(Poco::Net::SocketAddress("127.0.0.1", port));
        const auto web = kro::WebApiBasic::instance();
        web->apiRegist("/index/api/ping");
        web->apiRegist("/index/api/tasks", [](Request&, Response& response, const kro::ApiParams&) {
            std::stringstream listing;
            kro::PeriodicTaskManager::getInstance().showAllTaskInfo(listing);
            const std::string text = listing.str();
            response.setContentType("text/plain");
            response.sendBuffer(text.data(), text.size());
        });
        web->apiRegist("/index/api/status",
                       [this](Request&, Response&, const kro::ApiParams& params, Poco::JSON::Object& result) {
                           result.set("code", 0).set("connected", client->IsConnected());
                           const auto name = params.find("name");
                           if (name != params.end()) result.set("name", name->second);
                       });
        web->apiRegist(
            "/index/api/publish", [this](Request&, Response&, const kro::ApiParams&,
                                         Poco::JSON::Object& result, const Poco::JSON::Object& body) {
                const bool sent =
                    client->PublishMessage(body.optValue<std::string>("payload", ""),
                                           body.optValue<std::string>("topic", "edge/web"), 1, 0, 0);
                result.set("code", sent ? 0 : -1);
            });
        web->start(socket);
        say("web APIs on port " + std::to_string(port));
        hook->reportServerStarted();
        hook->reportServerKeepalive();
    }

    std::vector<unsigned int> task_ids;
    std::atomic<int> running{0};  // runs of periodic tasks
    std::shared_ptr<kro::WebHookBasic> hook = kro::WebHookBasic::createInstance();
    std::shared_ptr<kro::MqttClient> link;
    // What handlers and tasks use: good until the client has ended. `link` is null from its reset() on, which
    // only then waits for them.
    kro::MqttClient* const client;
};

}  // namespace

int main(int argc, char** argv)
{
    std::map<std::string, std::string> options{
        {"--broker", "tcp://127.0.0.1:1883"}, {"--user", ""}, {"--password", ""}};
    bool guarded = true;
    for (int i = 1; i < argc; ++i) {
        if (std::string(argv[i]) == "--settled") {
            guarded = false;
            continue;
        }
        const auto option = options.find(argv[i]);
        if (option == options.end() || i + 1 == argc) {
            std::cerr << "usage: edge_service [--broker URI] [--user NAME] [--password WORD] [--settled]\n";
            return 2;
        }
        option->second = argv[++i];
    }
    // Before anything else of the library: a full pool shall make work wait, where it would end the process.
    kro::setSafeguards(guarded ? kro::kAllSafeguards : 0u);
    say(guarded ? "all safeguards" : "no safeguards");
    // Blocked before any thread starts, so that every thread inherits it and sigwait() below gets the signal.
    sigset_t ends;
    sigemptyset(&ends);
    sigaddset(&ends, SIGINT);
    sigaddset(&ends, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &ends, nullptr);

    // The log comes first, since a thread that logs earlier never reaches it, then the defaults, then the
    // file.
    kro::loadLogging();
    kro::initHttpOption();
    kro::loadConfig();
    try {
        EdgeService service(options["--broker"], options["--user"], options["--password"]);
        int signal = 0;
        sigwait(&ends, &signal);
        service.stop();
    } catch (const std::exception& e) {  // a port that is taken, for one
        std::cerr << "edge_service: " << e.what() << std::endl;
        kro::deleteLogger();
        return 1;
    }
    kro::deleteLogger();  // last: nothing may log after it
    return 0;
}
