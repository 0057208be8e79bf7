#include "MqttConnection.h"

#include "ktr/common/Logger.h"

#include <Poco/Format.h>
#include <Poco/Net/SocketAddress.h>

#include <charconv>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <system_error>

namespace ktr {
namespace {

constexpr std::chrono::seconds kConnectTimeout(10);
// the outbox bounds what Paho is given; its own bound, 100 by default, must not be met before
constexpr int kMaxBuffered = 2 * static_cast<int>(MqttOutbox::maxOnTheWay);

// what brokers answer to CONNECT in MQTT 3.1.1
constexpr int kRefusedProtocol = 1;
constexpr int kRefusedClientId = 2;
constexpr int kRefusedUnavailable = 3;
constexpr int kRefusedCredentials = 4;
constexpr int kRefusedNotAuthorized = 5;

std::string topicsOf(const mqtt::token& token) {
    std::string text;
    const mqtt::const_string_collection_ptr topics = token.get_topics();
    for (std::size_t i = 0; topics && i < topics->size(); ++i)
        text += (i == 0 ? "" : ", ") + (*topics)[i];
    return text;
}

bool isConnectedTo(int fd, std::uint16_t port) {
    sockaddr_storage peer{};
    socklen_t length = sizeof peer;
    if (getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &length) != 0)
        return false;
    if (peer.ss_family != AF_INET && peer.ss_family != AF_INET6)
        return false;
    return Poco::Net::SocketAddress(reinterpret_cast<sockaddr*>(&peer), length).port() == port;
}

// Paho takes its library down with its last client, while its threads may still write to the trace
// buffer: at best that buffer is then leaked, 122 KiB for a connection. A client that never
// connects and never goes keeps the library and its two threads up.
void keepPahoUp() {
    [[gnu::used]] static const auto* const idle =
        new mqtt::async_client("tcp://127.0.0.1", "ketra-idle");
}

mqtt::message_ptr toPaho(const MqttClient::Message& message) {
    return mqtt::make_message(message.topic, message.payload, message.qos, message.retained);
}

} // namespace

MqttConnection::MqttConnection(const MqttBroker& broker_, const MqttClient::Settings& settings_,
                               const std::string& clientId, Observer& observer_)
    : broker(broker_), settings(settings_), observer(observer_),
      client(std::make_unique<mqtt::async_client>(
          broker_.uri(), clientId, mqtt::create_options(MQTTVERSION_3_1_1, kMaxBuffered))) {
    keepPahoUp();
    client->set_callback(*this);
}

MqttConnection::~MqttConnection() {
    // Paho calls message_arrived without its lock: its client must not go meanwhile. Its own
    // disable_callbacks takes its locks in the other order than its callbacks do.
    {
        std::unique_lock<std::mutex> lock(mutex);
        ending = true;
        changed.wait(lock, [this] { return deliveries == 0; });
    }
    client.reset();
}

void MqttConnection::open() {
    client->connect(connectOptions(), nullptr, *this);
}

mqtt::connect_options MqttConnection::connectOptions() const {
    mqtt::connect_options options;
    options.set_clean_session(true);
    options.set_keep_alive_interval(settings.keepAliveSeconds);
    options.set_connect_timeout(kConnectTimeout);
    // otherwise each attempt would be made twice, the second time with the older protocol
    options.set_mqtt_version(MQTTVERSION_3_1_1);
    if (!settings.user.empty())
        options.set_user_name(settings.user);
    if (!settings.password.empty())
        options.set_password(settings.password);
    if (!settings.will.topic.empty())
        options.set_will_message(toPaho(settings.will));
    if (broker.tls)
        options.set_ssl(tlsOptions());
    return options;
}

mqtt::ssl_options MqttConnection::tlsOptions() const {
    mqtt::ssl_options options;
    options.set_trust_store(settings.caFile);
    options.set_key_store(settings.certificateFile);
    options.set_private_key(settings.keyFile);
    options.set_enable_server_cert_auth(true);
    options.set_verify(true); // the name in the certificate too
    options.set_ssl_version(MQTT_SSL_VERSION_TLS_1_2);
    return options;
}

// Paho does not hand out its socket and leaves Nagle's algorithm on, by which a small message waits
// for the acknowledgement of the one before it, about 40 ms. So it is looked up by the broker's
// port; should another connection of the process go to the same port, then it is merely faster too.
void MqttConnection::sendWithoutDelay() const {
    std::error_code error;
    for (std::filesystem::directory_iterator entry("/proc/self/fd", error), end;
         !error && entry != end; entry.increment(error)) {
        const std::string name = entry->path().filename();
        int fd = -1;
        const int on = 1;
        if (std::from_chars(name.data(), name.data() + name.size(), fd).ec == std::errc() &&
            isConnectedTo(fd, broker.port))
            setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    }
}

void MqttConnection::subscribe(const std::string& filter, int qos) {
    client->subscribe(filter, qos, nullptr, *this);
}

void MqttConnection::unsubscribe(const std::string& filter) {
    client->unsubscribe(filter, nullptr, *this);
}

void MqttConnection::publish(MqttOutbox::Id id, const MqttClient::Message& message) {
    // a number in the place of a pointer, which nobody follows: Paho only hands it back
    // NOLINTNEXTLINE(performance-no-int-to-ptr)
    auto* const context = reinterpret_cast<void*>(id);
    client->publish(toPaho(message), context, *this);
}

void MqttConnection::close(std::chrono::milliseconds limit) {
    try {
        client->disconnect(0, nullptr, *this);
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait_for(lock, limit, [this] { return left; });
    } catch (const mqtt::exception& e) {
        if (cachedLogger().debug())
            cachedLogger().debug(
                Poco::format("MQTT connection ended without leave: %s", std::string(e.what())),
                __FILE__, __LINE__);
    }
}

void MqttConnection::connection_lost(const std::string& /*cause*/) {
    observer.lost();
}

void MqttConnection::message_arrived(mqtt::const_message_ptr message) {
    {
        const std::lock_guard<std::mutex> lock(mutex);
        if (ending)
            return;
        ++deliveries;
    }
    observer.received({message->get_topic(), message->get_payload_str(), message->get_qos(),
                       message->is_retained()});
    const std::lock_guard<std::mutex> lock(mutex);
    --deliveries;
    changed.notify_all();
}

void MqttConnection::noteLeft() {
    const std::lock_guard<std::mutex> lock(mutex);
    left = true;
    changed.notify_all();
}

void MqttConnection::on_success(const mqtt::token& token) {
    if (token.get_type() == mqtt::token::Type::CONNECT)
        observer.opened();
    else if (token.get_type() == mqtt::token::Type::PUBLISH)
        observer.sent(reinterpret_cast<MqttOutbox::Id>(token.get_user_context()));
    else if (token.get_type() == mqtt::token::Type::DISCONNECT)
        noteLeft();
}

// A message that fails on the way stays with the observer, who sends it again on the next
// connection.
void MqttConnection::on_failure(const mqtt::token& token) {
    if (token.get_type() == mqtt::token::Type::CONNECT)
        observer.failed(failureReason(token.get_return_code()));
    else if (token.get_type() == mqtt::token::Type::DISCONNECT)
        noteLeft();
    else if (token.get_type() == mqtt::token::Type::SUBSCRIBE &&
             token.get_return_code() == MQTT_BAD_SUBSCRIBE && cachedLogger().warning())
        cachedLogger().warning(
            Poco::format("the MQTT broker refuses the subscription to %s", topicsOf(token)),
            __FILE__, __LINE__);
}

std::string MqttConnection::failureReason(int code) const {
    switch (code) {
    case kRefusedProtocol:
        return "the broker does not speak MQTT 3.1.1";
    case kRefusedClientId:
        return "the broker refuses the client id";
    case kRefusedUnavailable:
        return "the broker says that it is unavailable";
    case kRefusedCredentials:
        return "the broker refuses the user or password";
    case kRefusedNotAuthorized:
        return "the broker refuses the connection: not authorized, check user and password";
    default:
        break;
    }
    if (broker.tls)
        return "nobody listens there, or the TLS handshake failed; check address, caFile, "
               "certificateFile and keyFile";
    return "nobody who speaks MQTT listens there";
}

} // namespace ktr
