#include "MqttPeer.h"

#include "support/WaitUntil.h"

#include <algorithm>
#include <sstream>
#include <string>

namespace ktr::soak {
namespace {

// The host waits up to a minute before it connects again if the broker was restarted several times
// in quick succession; a plugin may be between two objects.
constexpr std::chrono::seconds kFlowPatience(75);
constexpr std::chrono::milliseconds kProbeEvery(500);
constexpr std::chrono::seconds kArrivalPatience(10);

MqttClient::Settings settingsFor(const Device& device) {
    MqttClient::Settings settings;
    settings.url = device.broker.url();
    settings.clientId = Device::brokerClient();
    settings.maxReconnectSeconds = 2;
    return settings;
}

} // namespace

MqttPeer::MqttPeer(Device& device_, Problems& problems_)
    : device(device_), problems(problems_), ledger(problems_), client(settingsFor(device_)) {
    client.subscribe("soak/up", 1, [this](const auto& message) { takeNumber(message.payload); });
    client.subscribe("soak/echo", 1, [this](const auto& message) {
        std::istringstream in(message.payload);
        std::uint32_t plugin = kPlugins;
        std::uint64_t token = 0;
        if (in >> plugin >> token && plugin < kPlugins)
            answered.at(plugin) = token;
        else
            problems.add("an MQTT answer was altered: " + message.payload);
    });
    client.connect();
}

void MqttPeer::takeNumber(const std::string& payload) {
    std::istringstream in(payload);
    std::uint32_t plugin = kPlugins;
    std::uint64_t number = 0;
    if (in >> plugin >> number && plugin < kPlugins)
        ledger.arrived(plugin, number);
    else
        problems.add("an MQTT message was altered: " + payload);
}

void MqttPeer::expectFlow() {
    const std::uint64_t token = ++lastToken;
    const auto end = std::chrono::steady_clock::now() + kFlowPatience;
    while (!everyPluginAnswers(token))
        if (std::chrono::steady_clock::now() > end) {
            problems.add("MQTT does not flow again after the broker is back");
            break;
        }
    ledger.beginCalm(published());
}

bool MqttPeer::everyPluginAnswers(std::uint64_t token) {
    for (std::uint32_t plugin = 0; plugin < kPlugins; ++plugin) {
        const std::string number = std::to_string(plugin);
        if (answered.at(plugin) < token)
            client.publish({"soak/down/" + number, number + " " + std::to_string(token), 1, false});
    }
    return test::waitUntil(
        [&] {
            return std::all_of(answered.begin(), answered.end(),
                               [&](const auto& last) { return last >= token; });
        },
        kProbeEvery);
}

void MqttPeer::settle() {
    const auto numbers = published();
    test::waitUntil([&] { return ledger.hasAll(numbers); }, kArrivalPatience);
    ledger.endCalm(numbers);
}

MqttLedger::Numbers MqttPeer::published() const {
    MqttLedger::Numbers numbers{};
    std::transform(device.shared.plugins.begin(), device.shared.plugins.end(), numbers.begin(),
                   [](const PluginState& plugin) { return plugin.published.load(); });
    return numbers;
}

} // namespace ktr::soak
