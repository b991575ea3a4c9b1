#ifndef KRO_TESTS_MQTT_CLIENT_ACCESS_H
#define KRO_TESTS_MQTT_CLIENT_ACCESS_H

#include <mutex>
#include <string>

#include "MqttClient++.h"
#include "MqttClientImpl.h"
#include "ThreadPool.h"

namespace kro
{
struct MqttClientTestAccess
{
    using Impl = MqttClient::Impl;
    static Impl& impl(MqttClient& client) { return *client.impl; }
    static ThreadPool& pool() { return MqttClient::pool(); }
    static int busyThreads() { return MqttClient::pool().used(); }
    static void schedule(MqttClient& client) { client.ScheduleReconnect("a test"); }

    /// Subscribes as Subscribe() does, but on the calling thread.
    static void subscribe(MqttClient& client, const MqttClient::MessageHandler& handler,
                          const std::string& topic, int qos)
    {
        client.Subscribe_l(handler, topic, qos);
    }

    /// Ends the processor for good, so that what is delivered stays queued; release() must follow.
    static void holdProcessor(MqttClient& client)
    {
        impl(client).processor_started = false;
        impl(client).queue_cv.notify_all();
        impl(client).message_processor_thread.join();
    }
    /// Empties the queue as its own destruction does: without the settled second release.
    static void release(MqttClient& client)
    {
        const std::lock_guard<std::mutex> lock(impl(client).queue_mutex);
        impl(client).message_queue.clear();
        impl(client).memory_usage = 0;
    }
};
}  // namespace kro

#endif
