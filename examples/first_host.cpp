#include <chrono>
#include <iostream>
#include <thread>

#include <MqttClient++.h>

int main(int argc, char** argv)
{
    const std::string broker = argc > 1 ? argv[1] : "tcp://127.0.0.1:1883";
    auto client = kro::MqttClient::createInstance(broker, "first-host", argc > 2 ? argv[2] : "",
                                                  argc > 3 ? argv[3] : "");
    client->Subscribe(
        [&](const Poco::JSON::Object& hello, const std::string&) {
            const auto name = hello.optValue<std::string>("name", "stranger");
            client->PublishMessage("Hello, " + name, "hello/reply", 1, 0, 0);
        },
        "hello", 1);
    client->Connect(
        [](int code) {
            std::cout << (code == 0 ? "connected" : "not connected, trying again") << std::endl;
            return true;
        },
        [](const std::string&) { return true; });  // it reconnects by itself

    std::this_thread::sleep_for(std::chrono::minutes(1));
    client->Unsubscribe("hello");  // a client must not end with messages waiting
    while (client->GetQueueSize() > 0) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    client.reset();  // waits for handlers, then ends the client's threads
}
