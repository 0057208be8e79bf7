#pragma once

#include "ktr/Export.h"
#include "ktr/PluginBase.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <string>

/// All of the guid of a plugin of the bench but for the last digit, which is its number.
#define KETRA_BENCH_GUID_BEGINNING "6c0d8a52-41f7-4e0b-9b3d-00000000000"

/// Where the plugins of the bench and the program that loads them meet.
namespace ktr::bench {

constexpr std::size_t kPluginCount = 10;

/// The guid of the plugin `number`, from 0 on.
inline std::string guidOf(std::size_t number) {
    return KETRA_BENCH_GUID_BEGINNING + std::to_string(number);
}

/// The object of a plugin.
class BenchPlugin : public PluginBase {
public:
    /// Raises `event` with the callback that the host has installed.
    virtual void raise(std::string event) = 0;
};

/// What becomes of the events that reach the plugins.
class Sink {
public:
    Sink() = default;
    virtual ~Sink() = default;
    Sink(const Sink&) = delete;
    Sink& operator=(const Sink&) = delete;

    /// Called inside of the onMessage of the plugin `number`.
    virtual void take(std::size_t number, const std::string& event) = 0;
};

struct Board {
    /// The objects that have been started; null before.
    std::array<std::atomic<BenchPlugin*>, kPluginCount> plugins{};
    /// Null: events are dropped.
    std::atomic<Sink*> sink{nullptr};
};

KTR_API Board& board();

} // namespace ktr::bench
