#pragma once

#include <cstdint>
#include <string>

namespace ktr {

/// Where a broker listens.
struct MqttBroker {
    std::string host;
    std::uint16_t port = 0;
    bool tls = false;

    /// The address in the form that Paho takes.
    std::string uri() const;

    /// Throws Poco::InvalidArgumentException, naming what is wrong with `url`.
    static MqttBroker parse(const std::string& url);
};

} // namespace ktr
