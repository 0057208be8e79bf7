#include "MqttBroker.h"

#include <Poco/Exception.h>
#include <Poco/URI.h>

namespace ktr {
namespace {

constexpr std::uint16_t kPort = 1883;
constexpr std::uint16_t kTlsPort = 8883;

[[noreturn]] void refuse(const std::string& url, const std::string& reason) {
    throw Poco::InvalidArgumentException("cannot use the MQTT broker URL \"" + url +
                                         "\": " + reason);
}

Poco::URI split(const std::string& url) {
    try {
        return Poco::URI(url);
    } catch (const Poco::Exception& e) {
        refuse(url, e.displayText() + "; expected tcp://host:port or ssl://host:port");
    }
}

bool usesTls(const std::string& scheme, const std::string& url) {
    if (scheme == "ssl" || scheme == "mqtts")
        return true;
    if (scheme == "tcp" || scheme == "mqtt")
        return false;
    refuse(url, "its scheme must be tcp, mqtt, ssl or mqtts");
}

} // namespace

MqttBroker MqttBroker::parse(const std::string& url) {
    // first of all, and without the text of the URL, which may hold a password
    if (url.find('@') != std::string::npos)
        throw Poco::InvalidArgumentException(
            "cannot use the MQTT broker URL: it must not hold a user or password; give these in "
            "their own settings");
    const Poco::URI uri = split(url);
    MqttBroker broker;
    broker.tls = usesTls(uri.getScheme(), url);
    broker.host = uri.getHost();
    if (broker.host.empty())
        refuse(url, "it has no host");
    if (!uri.getPathEtc().empty() && uri.getPathEtc() != "/")
        refuse(url, "nothing may follow host and port");
    broker.port = uri.getPort();
    if (broker.port == 0)
        broker.port = broker.tls ? kTlsPort : kPort;
    return broker;
}

std::string MqttBroker::uri() const {
    const bool ipv6 = host.find(':') != std::string::npos;
    return std::string(tls ? "ssl://" : "tcp://") + (ipv6 ? '[' + host + ']' : host) + ':' +
           std::to_string(port);
}

} // namespace ktr
