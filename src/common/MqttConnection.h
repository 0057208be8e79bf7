#pragma once

#include "MqttBroker.h"
#include "MqttOutbox.h"
#include "ktr/common/MqttClient.h"

#include <mqtt/async_client.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>

namespace ktr {

/// One connection to a broker, from the attempt to its loss; a next attempt takes a new object,
/// since Paho keeps the tokens of what a lost connection left undone.
///
/// Thread safety: the observer is called on Paho's threads, at times with Paho's own lock held: it
/// must not call the connection and not wait, but in received(). The functions are for one thread.
class MqttConnection : private mqtt::callback, private mqtt::iaction_listener {
public:
    class Observer {
    public:
        virtual ~Observer() = default;
        virtual void opened() = 0;
        virtual void failed(const std::string& reason) = 0;
        virtual void lost() = 0;
        virtual void received(MqttClient::Message message) = 0;
        virtual void sent(MqttOutbox::Id id) = 0;
    };

    MqttConnection(const MqttBroker& broker, const MqttClient::Settings& settings,
                   const std::string& clientId, Observer& observer);
    /// Cuts the connection, so that the broker publishes the last will, unless it was closed.
    ~MqttConnection() override;
    MqttConnection(const MqttConnection&) = delete;
    MqttConnection& operator=(const MqttConnection&) = delete;

    /// Starts the attempt; opened() or failed() follows. Throws mqtt::exception.
    void open();
    /// To be called once it has opened: small messages then leave without waiting for the
    /// acknowledgement of those before them.
    void sendWithoutDelay() const;
    /// These throw mqtt::exception when the broker can no longer be told.
    void subscribe(const std::string& filter, int qos);
    void unsubscribe(const std::string& filter);
    /// sent() follows when it has left (QoS 0) or was confirmed.
    void publish(MqttOutbox::Id id, const MqttClient::Message& message);
    /// Takes leave of the broker, for at most `limit`.
    void close(std::chrono::milliseconds limit);

private:
    void connection_lost(const std::string& cause) override;
    void message_arrived(mqtt::const_message_ptr message) override;
    void on_failure(const mqtt::token& token) override;
    void on_success(const mqtt::token& token) override;
    void noteLeft();

    mqtt::connect_options connectOptions() const;
    mqtt::ssl_options tlsOptions() const;
    std::string failureReason(int code) const;

    const MqttBroker broker;
    const MqttClient::Settings& settings;
    Observer& observer;

    std::mutex mutex;
    std::condition_variable changed;
    // guarded by mutex
    int deliveries = 0;
    bool ending = false;
    bool left = false;

    std::unique_ptr<mqtt::async_client> client;
};

} // namespace ktr
