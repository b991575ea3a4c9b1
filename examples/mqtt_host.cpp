// The smallest MQTT host: prints what arrives on a topic and answers on another, until SIGINT or SIGTERM.
// mqtt_host [BROKER [USER PASSWORD]]
#include <csignal>
#include <cstdio>
#include <string>

#include <Logger.h>
#include <MqttClient++.h>
#include <Safeguards.h>

int main(int argc, char** argv)
{
    kro::setSafeguards(kro::kAllSafeguards);  // first: a full pool or a waiting message shall end no process
    // Blocked before there is any other thread, so that all inherit it and sigwait() gets the signal.
    sigset_t ends;
    sigemptyset(&ends);
    sigaddset(&ends, SIGINT);
    sigaddset(&ends, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &ends, nullptr);
    kro::loadLogging();  // before any other thread logs

    const std::string broker = argc > 1 ? argv[1] : "tcp://127.0.0.1:1883";
    auto client = kro::MqttClient::createInstance(broker, "mqtt-host", argc > 2 ? argv[2] : "",
                                                  argc > 3 ? argv[3] : "");
    client->Subscribe(
        // On a pool thread. The plain pointer is good until the handler returns, also while the client ends.
        [mqtt = client.get()](MQTTAsync_message* message, const std::string& topic) {
            const std::string text(static_cast<const char*>(message->payload),
                                   static_cast<std::size_t>(message->payloadlen));
            std::printf("%s: %s\n", topic.c_str(), text.c_str());
            std::fflush(stdout);
            mqtt->PublishMessage(text, "device/echo", 1, 0, 0);
        },
        "device/in/#", 1);
    client->Connect(
        [](int code) {  // on Paho's thread: look at the result, and no more
            std::printf("%s, code %d\n", code == 0 ? "connected" : "not connected", code);
            return true;
        },
        {});

    int signal = 0;
    sigwait(&ends, &signal);
    client.reset();       // waits for handlers that run; what still waits in the queue is dropped
    kro::deleteLogger();  // last: nothing may log after it
}
