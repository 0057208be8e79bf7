#pragma once

#include "Device.h"
#include "MqttLedger.h"
#include "Problems.h"

#include "ktr/common/MqttClient.h"

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>

namespace ktr::soak {

/// Talks MQTT with the plugins through the broker, as somebody outside of the host.
class MqttPeer {
public:
    MqttPeer(Device& device_, Problems& problems_);

    /// Waits until every plugin answers over MQTT; from then on every message counts.
    void expectFlow();

    /// Tells what was lost or doubled since expectFlow().
    void settle();

    std::uint64_t received() const { return ledger.total(); }

private:
    MqttLedger::Numbers published() const;
    void takeNumber(const std::string& payload);
    bool everyPluginAnswers(std::uint64_t token);

    Device& device;
    Problems& problems;
    MqttLedger ledger;
    std::uint64_t lastToken = 0;
    /// The last question that each plugin has answered.
    std::array<std::atomic<std::uint64_t>, kPlugins> answered{};
    // last, since its handlers use the others
    MqttClient client;
};

} // namespace ktr::soak
