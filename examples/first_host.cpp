#include <chrono>
#include <string>
#include <thread>

#include <Logger.h>
#include <MqttClient++.h>
#include <Safeguards.h>

int main(int argc, char** argv)
{
    kro::setSafeguards(kro::kAllSafeguards);  // first: else a burst of messages could end the process
    kro::loadLogging();  // to standard error, and into /media/log/tolvan, which must be writable
    const std::string broker = argc > 1 ? argv[1] : "tcp://127.0.0.1:1883";
    auto client = kro::MqttClient::createInstance(broker, "first-host", argc > 2 ? argv[2] : "",
                                                  argc > 3 ? argv[3] : "");
    client->Subscribe(
        [mqtt = client.get()](const Poco::JSON::Object& hello, const std::string&) {
            const auto name = hello.optValue<std::string>("name", "stranger");
            mqtt->PublishMessage("Hello, " + name, "hello/reply", 1, 0, 0);
        },
        "hello", 1);
    client->Connect({}, {});  // from now on it is connected, or on its way back; the log tells

    std::this_thread::sleep_for(std::chrono::minutes(1));
    client.reset();  // waits for handlers that run, drops what still waits, ends the client's threads
    kro::deleteLogger();
}
