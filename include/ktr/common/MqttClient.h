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
    /// One message, to the broker or from it.
    struct Message {
        /// UTF-8; without wildcards.
        std::string topic;
        /// Any bytes.
        std::string payload;
        /// 0: at most once, 1: at least once, 2: exactly once.
        int qos = 0;
        /// Asks the broker to keep the message for those who subscribe later; of one that comes
        /// from the broker, that it was kept.
        bool retained = false;
    };

    /// Takes one message. Called on a thread of the client, one at a time, with no lock held; what
    /// it throws is logged. It may publish, subscribe and unsubscribe; while it runs, no other
    /// message is delivered. A handler that takes long delays the others, not the connection.
    /// Brokers may deliver a message once for each filter that it matches, each of which then calls
    /// all their handlers.
    using Handler = std::function<void(const Message& message)>;

    /// How to reach the broker.
    struct Settings {
        /// tcp://host:port, mqtt://host:port, ssl://host:port or mqtts://host:port; empty for none.
        /// The ports may be left out (1883, 8883).
        std::string url;
        /// Empty for "ketra-" and a random part.
        std::string clientId;
        /// User at the broker; empty for none.
        std::string user;
        /// Password at the broker; empty for none.
        std::string password;
        /// PEM file of the authorities to trust for TLS; empty for the system's. The broker's
        /// certificate must be theirs and bear the host name or address of the URL.
        std::string caFile;
        /// PEM file of the client's own certificate for TLS; empty for none.
        std::string certificateFile;
        /// PEM file of that certificate's key; empty for none.
        std::string keyFile;
        /// Published by the broker when the connection is lost; none if its topic is empty.
        Message will;
        /// After so long without traffic the broker is asked whether it is still there.
        int keepAliveSeconds = 30;
        /// Delay before reconnecting, doubled up to the maximum until a connection has held for ten
        /// seconds, or as long as the delay.
        int minReconnectSeconds = 1;
        /// What that delay grows to at most.
        int maxReconnectSeconds = 60;
        /// Messages kept while offline; when full, the oldest is dropped with a warning. While
        /// connected, at least 1000 may wait for a slow broker.
        std::size_t offlineMessages = 1000;
    };

    /// A client without a broker.
    MqttClient();
    /// Throws Poco::InvalidArgumentException for a URL, last will, keep-alive or delay that it
    /// cannot use, naming it. User and password do not belong into the URL.
    explicit MqttClient(const Settings& settings);
    /// Calls disconnect().
    ~MqttClient();
    MqttClient(const MqttClient&) = delete;
    MqttClient& operator=(const MqttClient&) = delete;

    /// Starts connecting and returns at once; goes on trying, and reconnects and subscribes anew
    /// after a loss, until disconnect(). Without a broker it does nothing.
    void connect();

    /// Sends what is buffered if connected (for at most two seconds), then ends the connection.
    /// Messages that came in are dropped with a warning if their handlers were not called yet;
    /// those that were not sent stay for the next connect(). Returns when no handler is running any
    /// more; not to be called from one.
    void disconnect();

    /// Whether the broker has accepted the connection and it is not known to be lost.
    bool isConnected() const;

    /// Sends `message` (qos 0 to 2), or keeps it until connected; does not wait for either. Returns
    /// false, with a log line, if it was not accepted: no broker configured (a debug line), a bad
    /// qos or topic. What the broker has not confirmed when the connection is lost is sent again
    /// with qos 1 and 2, and may then arrive twice; with qos 0 it may be lost.
    bool publish(const Message& message);

    /// Has `handler` called for every message that matches `filter` (with + and #), at most with
    /// `qos` (0 to 2); replaces an earlier handler of the same filter, which may still be running.
    /// Kept over reconnections. Leading wildcards leave out topics that begin with $. Returns
    /// false, with a log line, for a bad filter or qos or an empty handler.
    bool subscribe(const std::string& filter, int qos, Handler handler);

    /// Ends a subscription; returns when its handler no longer runs (but for a call that the
    /// calling thread itself is in). An unknown filter does nothing.
    void unsubscribe(const std::string& filter);

private:
    struct Impl;
    const std::unique_ptr<Impl> impl;
};

} // namespace ktr
