#include "MqttLedger.h"

#include <string>

namespace ktr::soak {

void MqttLedger::arrived(std::uint32_t plugin, std::uint64_t number) {
    const std::lock_guard<std::mutex> lock(mutex);
    ++count;
    ++seen.at(plugin)[number];
}

void MqttLedger::beginCalm(const Numbers& published) {
    const std::lock_guard<std::mutex> lock(mutex);
    before = published;
    // the next one may have been handed over already, before everything worked
    for (std::uint64_t& number : before)
        ++number;
}

bool MqttLedger::hasAll(const Numbers& published) const {
    const std::lock_guard<std::mutex> lock(mutex);
    for (std::uint32_t plugin = 0; plugin < kPlugins; ++plugin)
        for (auto number = before.at(plugin) + 1; number <= published.at(plugin); ++number)
            if (timesLocked(plugin, number) == 0)
                return false;
    return true;
}

void MqttLedger::endCalm(const Numbers& published) {
    const std::lock_guard<std::mutex> lock(mutex);
    for (std::uint32_t plugin = 0; plugin < kPlugins; ++plugin) {
        check(plugin, before.at(plugin) + 1, published.at(plugin));
        seen.at(plugin).clear();
    }
}

void MqttLedger::check(std::uint32_t plugin, std::uint64_t first, std::uint64_t last) {
    for (std::uint64_t number = first; number <= last; ++number)
        if (const auto times = timesLocked(plugin, number); times != 1)
            problems.add("MQTT message " + std::to_string(number) + " of plugin " +
                         std::to_string(plugin) + " arrived " + std::to_string(times) + " times");
}

std::uint64_t MqttLedger::timesLocked(std::uint32_t plugin, std::uint64_t number) const {
    const auto found = seen.at(plugin).find(number);
    return found == seen.at(plugin).end() ? 0 : found->second;
}

std::uint64_t MqttLedger::total() const {
    const std::lock_guard<std::mutex> lock(mutex);
    return count;
}

} // namespace ktr::soak
