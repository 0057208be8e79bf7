#pragma once

#include "ktr/Export.h"

#include <cstddef>
#include <functional>
#include <memory>
#include <string>

namespace ktr {

/// The host's MQTT client, shared by all plugins. An object without a broker is simply not
/// connected: nothing in it fails for that reason alone.
///
/// Thread safety: all functions may be called from any thread.
class KTR_API MqttClient {
public:
    struct Message {
        std::string topic;
        std::string payload;
        int qos = 0;
        bool retained = false;
    };

    /// Takes one message. Called on a thread of the client, one at a time, with no lock held; what
    /// it throws is logged. It may publish, subscribe and unsubscribe; while it runs, no other
    /// message is delivered.
    using Handler = std::function<void(const Message& message)>;

    struct Settings {
        /// tcp://host:port, mqtt://host:port, ssl://host:port or mqtts://host:port; empty for none.
        std::string url;
        /// Empty for "ketra-" and a random part.
        std::string clientId;
        std::string user;
        std::string password;
        /// PEM files for TLS: authorities to trust (empty for the system's), own certificate and
        /// key.
        std::string caFile;
        std::string certificateFile;
        std::string keyFile;
        /// Published by the broker when the connection is lost; none if its topic is empty.
        Message will;
        int keepAliveSeconds = 30;
        /// Delay before reconnecting, doubled up to the maximum.
        int minReconnectSeconds = 1;
        int maxReconnectSeconds = 60;
        /// Messages kept while offline; when full, the oldest is dropped with a warning.
        std::size_t offlineMessages = 1000;
    };

    /// A client without a broker.
    MqttClient();
    /// Throws Poco::InvalidArgumentException for a URL that it cannot use, naming it.
    explicit MqttClient(const Settings& settings);
    /// Calls disconnect().
    ~MqttClient();
    MqttClient(const MqttClient&) = delete;
    MqttClient& operator=(const MqttClient&) = delete;

    /// Starts connecting and returns at once; goes on trying, and reconnects and subscribes anew
    /// after a loss, until disconnect(). Without a broker it does nothing.
    void connect();

    /// Sends what is buffered if connected (for at most two seconds), then ends the connection.
    /// Returns when no handler is running any more; not to be called from one.
    void disconnect();

    bool isConnected() const;

    /// Sends `message` (qos 0 to 2), or keeps it until connected. Returns false, with a log line,
    /// if it was not accepted: no broker configured, a bad qos or topic.
    bool publish(const Message& message);

    /// Has `handler` called for every message that matches `filter` (with + and #), at most with
    /// `qos` (0 to 2); replaces an earlier handler of the same filter. Kept over reconnections.
    /// Returns false, with a log line, for a bad filter or qos.
    bool subscribe(const std::string& filter, int qos, Handler handler);

    /// Ends a subscription; returns when its handler no longer runs (but for a call that the
    /// calling thread itself is in). An unknown filter does nothing.
    void unsubscribe(const std::string& filter);

private:
    struct Impl;
    const std::unique_ptr<Impl> impl;
};

} // namespace ktr
