#pragma once

#include <algorithm>
#include <array>
#include <cinttypes>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <numeric>
#include <optional>
#include <random>
#include <string>
#include <vector>

namespace ktr::soak {

constexpr std::uint32_t kPlugins = 10;
/// normal and rapid
constexpr std::uint32_t kPaths = 2;
/// Events of one stream are raised one after the other, so that their numbers tell their order.
/// Each plugin has one for each path of what its own thread raises, and of what it raises from
/// inside a delivery.
constexpr std::uint32_t kStreams = kPlugins * 2 * kPaths;

struct EventId {
    std::uint32_t stream = 0;
    /// from 1
    std::uint64_t number = 0;
};

struct Event {
    /// Plugins, in the order in which they are to receive it; none twice.
    std::vector<std::uint32_t> to;
    std::string text;
};

inline std::uint32_t streamOf(std::uint32_t plugin, bool insideDelivery, std::uint32_t path) {
    return (plugin * 2 + (insideDelivery ? 1 : 0)) * kPaths + path;
}

inline std::uint32_t pathOf(std::uint32_t stream) {
    return stream % kPaths;
}

inline std::string guidOf(std::uint32_t plugin) {
    return "ketra-soak-plugin-" + std::to_string(plugin);
}

/// The event of this number, the same wherever it is made: so sender, receivers and whoever checks
/// need not tell each other what is in it.
inline Event makeEvent(std::uint32_t seed, const EventId& id) {
    constexpr std::uint64_t spread = 0x9e3779b97f4a7c15;
    const std::uint64_t mixed = ((id.number * kStreams + id.stream) * spread) ^ seed;
    std::minstd_rand random(static_cast<std::uint32_t>(mixed ^ (mixed >> 32)));
    random.discard(2);

    Event event;
    event.to.resize(kPlugins);
    std::iota(event.to.begin(), event.to.end(), 0U);
    std::shuffle(event.to.begin(), event.to.end(), random);
    // mostly a few recipients, at times all of them
    event.to.resize(random() % 20 == 0 ? kPlugins : 1 + random() % 4);

    std::string guids;
    for (const std::uint32_t plugin : event.to)
        guids += (guids.empty() ? "\"" : ",\"") + guidOf(plugin) + "\"";
    static constexpr std::array<const char*, 2> rapid{"pushTelemetry", "smaReceivePilotData"};
    const std::string api = pathOf(id.stream) == 0 ? "none" : rapid.at(random() % rapid.size());
    event.text = R"({"stream":)" + std::to_string(id.stream) + R"(,"number":)" +
                 std::to_string(id.number) + R"(,"to":[)" + guids + R"(],"api":")" + api +
                 R"(","filler":")" + std::string(random() % 512, 'x') + "\"}";
    return event;
}

/// Which event this text claims to be; none if it is no text of ours.
inline std::optional<EventId> idOf(const std::string& text) {
    EventId id;
    if (std::sscanf(text.c_str(), R"({"stream":%)" SCNu32 R"(,"number":%)" SCNu64, &id.stream,
                    &id.number) != 2 ||
        id.stream >= kStreams)
        return std::nullopt;
    return id;
}

} // namespace ktr::soak
