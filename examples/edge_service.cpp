// A service of an edge device, as a host of the library: it answers JSON requests and reports raw payloads
// over MQTT.
//
// It tells on standard output, line by line, what happens to it; ./run drives it from outside and reads those
// lines.
#include <unistd.h>
#include <atomic>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>

#include <MqttClient++.h>

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

class EdgeService
{
public:
    EdgeService(const std::string& broker, const std::string& user, const std::string& password)
        : client(kro::MqttClient::createInstance(broker, "edge-" + std::to_string(getpid()), user, password))
    {
        // Handlers may be added before there is a connection: each connect success subscribes them all. What
        // captures `this` is safe because stop() ends the client before this object goes.
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
    }

    /// Ends the client. Messages that wait would end the process with it, so the topics go first, and what
    /// has arrived is handled.
    void stop()
    {
        for (const char* const topic : {"/krono/edge/request", "edge/raw", "edge/heartBeat"})
            client->Unsubscribe(topic);
        while (client->GetQueueSize() > 0) std::this_thread::sleep_for(std::chrono::milliseconds(10));
        say("threads of the client: " + std::to_string(clientThreads()));
        client.reset();
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

    std::shared_ptr<kro::MqttClient> client;
};

}  // namespace

int main(int argc, char** argv)
{
    std::map<std::string, std::string> options{
        {"--broker", "tcp://127.0.0.1:1883"}, {"--user", ""}, {"--password", ""}};
    for (int i = 1; i < argc; ++i) {
        const auto option = options.find(argv[i]);
        if (option == options.end() || i + 1 == argc) {
            std::cerr << "usage: edge_service [--broker URI] [--user NAME] [--password WORD]\n";
            return 2;
        }
        option->second = argv[++i];
    }
    // Blocked before any thread starts, so that every thread inherits it and sigwait() below gets the signal.
    sigset_t ends;
    sigemptyset(&ends);
    sigaddset(&ends, SIGINT);
    sigaddset(&ends, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &ends, nullptr);

    EdgeService service(options["--broker"], options["--user"], options["--password"]);
    int signal = 0;
    sigwait(&ends, &signal);
    service.stop();
    return 0;
}
