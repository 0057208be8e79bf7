#include "ktr/common/MqttClient.h"

#include "HostLookup.h"
#include "MqttBroker.h"
#include "MqttConnection.h"
#include "MqttInbox.h"
#include "MqttOutbox.h"
#include "MqttTopic.h"
#include "ReconnectDelay.h"
#include "ktr/common/Logger.h"

#include <Poco/Exception.h>
#include <Poco/Format.h>
#include <Poco/UUIDGenerator.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <optional>
#include <pthread.h>
#include <set>
#include <thread>
#include <utility>

namespace ktr {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kLeaveLimit(2);
constexpr std::chrono::seconds kLookupLimit(10);
// while connected, what a burst may bring before the connection has taken it
constexpr std::size_t kBurst = 1000;
// the protocol's limit
constexpr std::size_t kMaxPayload = 268435455 - 65535 - 16;
constexpr int kMaxKeepAlive = 65535;

void information(const std::string& text) {
    if (cachedLogger().information())
        cachedLogger().information(text, __FILE__, __LINE__);
}

void warning(const std::string& text) {
    if (cachedLogger().warning())
        cachedLogger().warning(text, __FILE__, __LINE__);
}

std::string randomClientId() {
    // brokers need not take more than 23 characters
    constexpr std::size_t kRandomDigits = 8;
    const std::string random = Poco::UUIDGenerator::defaultGenerator().createRandom().toString();
    return "ketra-" + random.substr(0, kRandomDigits);
}

bool isQos(int qos) {
    return qos >= 0 && qos <= 2;
}

void check(const MqttClient::Settings& settings) {
    const MqttClient::Message& will = settings.will;
    if (!will.topic.empty() && (!isMqttTopic(will.topic) || !isQos(will.qos)))
        throw Poco::InvalidArgumentException("cannot use the MQTT last will: bad topic \"" +
                                             will.topic + "\" or QoS " + std::to_string(will.qos));
    if (settings.keepAliveSeconds < 0 || settings.keepAliveSeconds > kMaxKeepAlive)
        throw Poco::InvalidArgumentException("the MQTT keep-alive must be 0 to 65535 seconds");
    if (settings.minReconnectSeconds < 1 ||
        settings.maxReconnectSeconds < settings.minReconnectSeconds)
        throw Poco::InvalidArgumentException(
            "the MQTT reconnection delays must be at least 1 s, the maximum not below the minimum");
}

} // namespace

// hidden, or it would be offered to others with the class around it
struct __attribute__((visibility("hidden"))) MqttClient::Impl : MqttConnection::Observer {
    enum class Link { Down, Connecting, Up };

    Impl() : broker(std::nullopt) {}

    explicit Impl(const Settings& settings_)
        : settings(settings_),
          clientId(settings.clientId.empty() ? randomClientId() : settings.clientId),
          broker(settings.url.empty() ? std::nullopt
                                      : std::optional(MqttBroker::parse(settings.url))) {
        check(settings);
    }

    void start() {
        // whoever asks from a handler asks for what is so already
        if (!broker || inbox.isOwnThread())
            return;
        const std::lock_guard<std::mutex> lock(lifecycle);
        if (worker.joinable())
            return;
        {
            const std::lock_guard<std::mutex> state(mutex);
            stopping = false;
        }
        inbox.start();
        worker = std::thread([this] { keepConnected(); });
    }

    void stop() {
        if (inbox.isOwnThread()) {
            cachedLogger().error("an MQTT handler must not disconnect its client", __FILE__,
                                 __LINE__);
            return;
        }
        const std::lock_guard<std::mutex> lock(lifecycle);
        if (!worker.joinable())
            return;
        {
            const std::lock_guard<std::mutex> state(mutex);
            stopping = true;
            leaveUntil = Clock::now() + kLeaveLimit;
            changed.notify_all();
        }
        inbox.close();
        worker.join();
        inbox.finish();
    }

    bool isUp() const {
        const std::lock_guard<std::mutex> lock(mutex);
        return link == Link::Up;
    }

    bool send(const Message& message) {
        std::unique_lock<std::mutex> lock(mutex);
        const std::size_t capacity = outboxCapacity();
        if (capacity == 0) {
            lock.unlock();
            warning("an MQTT message was dropped: not connected, and none may be kept");
            return false;
        }
        const std::size_t lost = outbox.put(message, capacity);
        changed.notify_all();
        noteDropped(lost);
        return true;
    }

    void add(const std::string& filter, int qos, Handler handler) {
        const std::lock_guard<std::mutex> lock(mutex);
        inbox.set(filter, std::move(handler));
        filters[filter] = qos;
        tellBroker(filter);
    }

    void remove(const std::string& filter) {
        {
            const std::lock_guard<std::mutex> lock(mutex);
            if (filters.erase(filter) > 0)
                tellBroker(filter);
        }
        inbox.erase(filter);
        inbox.waitForHandler(filter);
    }

    // MqttConnection::Observer

    void opened() override { setLink(Link::Up, {}); }
    void failed(const std::string& why) override { setLink(Link::Down, why); }
    void lost() override { setLink(Link::Down, {}); }
    void received(Message message) override { inbox.put(std::move(message)); }
    void sent(MqttOutbox::Id id) override {
        const std::lock_guard<std::mutex> lock(mutex);
        outbox.done(id);
        changed.notify_all();
    }

    // the worker

    void keepConnected() {
        pthread_setname_np(pthread_self(), "mqtt");
        ReconnectDelay delay(std::chrono::seconds(settings.minReconnectSeconds),
                             std::chrono::seconds(settings.maxReconnectSeconds));
        Clock::duration up{};
        do {
            const Clock::time_point begin = Clock::now();
            up = runConnection() ? Clock::now() - begin : Clock::duration::zero();
        } while (pause(delay.next(up)));
    }

    /// From the attempt to the end of the connection; false if it was never up.
    bool runConnection() {
        bool wasUp = false;
        try {
            lookUpHost(broker->host, kLookupLimit, [this] { return isStopping(); });
            MqttConnection connection(*broker, settings, clientId, *this);
            wasUp = connectWith(connection);
            if (wasUp)
                serve(connection);
        } catch (const Poco::Exception& e) {
            noteFailure(e.displayText());
        } catch (const std::exception& e) {
            noteFailure(e.what());
        }
        const std::lock_guard<std::mutex> lock(mutex);
        link = Link::Down;
        noteDropped(outbox.recover(settings.offlineMessages));
        return wasUp;
    }

    bool connectWith(MqttConnection& connection) {
        setLink(Link::Connecting, {});
        connection.open();
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait(lock, [this] { return stopping || link != Link::Connecting; });
        if (link == Link::Up)
            return true;
        if (!stopping) {
            lock.unlock();
            noteFailure(reason);
        }
        return false;
    }

    void serve(MqttConnection& connection) {
        connection.sendWithoutDelay();
        noteConnected();
        while (step(connection)) {
        }
        const std::unique_lock<std::mutex> lock(mutex);
        if (!stopping)
            information("MQTT connection to " + broker->uri() + " lost, connecting again");
    }

    /// Does one thing that is to be done; false when the connection is over.
    bool step(MqttConnection& connection) {
        std::unique_lock<std::mutex> lock(mutex);
        while (!isOver() && untold.empty() && !outbox.canSend()) {
            if (stopping)
                changed.wait_until(lock, Clock::time_point(leaveUntil));
            else
                changed.wait(lock);
        }
        if (link == Link::Up && isOver())
            leave(connection, lock);
        else if (link == Link::Up)
            return untold.empty() ? sendNext(connection, lock) : settleFilter(connection, lock);
        return false;
    }

    bool settleFilter(MqttConnection& connection, std::unique_lock<std::mutex>& lock) {
        const std::string filter = *untold.begin();
        untold.erase(untold.begin());
        const auto found = filters.find(filter);
        const bool wanted = found != filters.end();
        const int qos = wanted ? found->second : 0;
        lock.unlock();
        try {
            if (wanted)
                connection.subscribe(filter, qos);
            else
                connection.unsubscribe(filter);
        } catch (const mqtt::exception& e) {
            // all filters are told again on the next connection
            return isRefusal(e, filter);
        }
        return true;
    }

    bool sendNext(MqttConnection& connection, std::unique_lock<std::mutex>& lock) {
        const auto [id, message] = outbox.next();
        lock.unlock();
        try {
            connection.publish(id, message);
        } catch (const mqtt::exception& e) {
            const bool refused = isRefusal(e, message.topic);
            lock.lock();
            if (refused)
                outbox.done(id);
            else
                outbox.putBack(id);
            return refused;
        }
        return true;
    }

    /// Whether Paho will not take this topic or message ever, rather than not now.
    static bool isRefusal(const mqtt::exception& e, const std::string& topic) {
        if (e.get_return_code() == MQTTASYNC_DISCONNECTED)
            return false;
        if (cachedLogger().error())
            cachedLogger().error(
                Poco::format("MQTT topic %s: given up, %s", topic, std::string(e.what())), __FILE__,
                __LINE__);
        return true;
    }

    void leave(MqttConnection& connection, std::unique_lock<std::mutex>& lock) {
        if (!outbox.isIdle())
            warning(Poco::format("%z MQTT messages are not confirmed at the end of the connection",
                                 outbox.size()));
        link = Link::Down;
        lock.unlock();
        connection.close(std::chrono::duration_cast<std::chrono::milliseconds>(
            std::max(leaveUntil - Clock::now(), Clock::duration::zero())));
    }

    /// False when it is time to end.
    bool pause(std::chrono::seconds delay) {
        std::unique_lock<std::mutex> lock(mutex);
        return !changed.wait_for(lock, delay, [this] { return stopping; });
    }

    bool isStopping() const {
        const std::lock_guard<std::mutex> lock(mutex);
        return stopping;
    }

    void setLink(Link next, const std::string& why) {
        const std::lock_guard<std::mutex> lock(mutex);
        link = next;
        reason = why;
        changed.notify_all();
    }

    void noteConnected() {
        const std::lock_guard<std::mutex> lock(mutex);
        untold.clear();
        for (const auto& [filter, qos] : filters)
            untold.insert(filter);
        information("MQTT connected to " + broker->uri());
        if (dropped > 1)
            warning(
                Poco::format("%z MQTT messages were dropped in all since the first one", dropped));
        dropped = 0;
        failureTold = false;
    }

    // Called once for each attempt: the first one tells, the others would only fill the log.
    void noteFailure(const std::string& why) {
        {
            const std::lock_guard<std::mutex> lock(mutex);
            if (stopping || std::exchange(failureTold, true))
                return;
        }
        warning("cannot connect to the MQTT broker " + broker->uri() + ": " + why +
                "; trying on without further notice");
    }

    // with mutex held:

    bool isOver() const {
        return link != Link::Up || (stopping && (outbox.isIdle() || Clock::now() >= leaveUntil));
    }

    std::size_t outboxCapacity() const {
        return link == Link::Up ? std::max(settings.offlineMessages, kBurst)
                                : settings.offlineMessages;
    }

    void tellBroker(const std::string& filter) {
        if (link != Link::Up)
            return;
        untold.insert(filter);
        changed.notify_all();
    }

    void noteDropped(std::size_t count) {
        const bool first = dropped == 0 && count > 0;
        dropped += count;
        if (first)
            warning("MQTT messages wait for the broker beyond their limit: the oldest are dropped");
    }

    const Settings settings;
    const std::string clientId;
    const std::optional<MqttBroker> broker;

    // self-synchronised
    MqttInbox inbox;

    // guards worker; taken before mutex
    std::mutex lifecycle;
    std::thread worker;

    mutable std::mutex mutex;
    std::condition_variable changed;
    // guarded by mutex, which is taken before the inbox's
    bool stopping = false;
    Clock::time_point leaveUntil;
    Link link = Link::Down;
    std::string reason;
    MqttOutbox outbox;
    std::size_t dropped = 0;
    bool failureTold = false;
    std::map<std::string, int> filters;
    /// Filters that the broker is to be told of, added or removed; filled only while connected.
    std::set<std::string> untold;
};

MqttClient::MqttClient() : impl(std::make_unique<Impl>()) {}

MqttClient::MqttClient(const Settings& settings) : impl(std::make_unique<Impl>(settings)) {}

MqttClient::~MqttClient() {
    disconnect();
}

void MqttClient::connect() {
    impl->start();
}

void MqttClient::disconnect() {
    impl->stop();
}

bool MqttClient::isConnected() const {
    return impl->isUp();
}

bool MqttClient::publish(const Message& message) {
    if (!isMqttTopic(message.topic) || !isQos(message.qos) ||
        message.payload.size() > kMaxPayload) {
        warning("an MQTT message was refused: bad topic \"" + message.topic + "\", QoS or length");
        return false;
    }
    if (!impl->broker) {
        if (cachedLogger().debug())
            cachedLogger().debug("an MQTT message was refused: no broker is configured", __FILE__,
                                 __LINE__);
        return false;
    }
    return impl->send(message);
}

bool MqttClient::subscribe(const std::string& filter, int qos, Handler handler) {
    if (!isMqttFilter(filter) || !isQos(qos) || !handler) {
        warning("an MQTT subscription was refused: bad filter \"" + filter + "\", QoS or handler");
        return false;
    }
    impl->add(filter, qos, std::move(handler));
    return true;
}

void MqttClient::unsubscribe(const std::string& filter) {
    impl->remove(filter);
}

} // namespace ktr
