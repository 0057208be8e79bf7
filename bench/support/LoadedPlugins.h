#pragma once

#include "support/TempDir.h"

#include <memory>

namespace ktr {
class MqttClient;
}

namespace ktr::bench {

/// The plugins of bench/plugins, loaded from a temporary device root and started upon reports of
/// their services, as the host does it. One at a time; board() then has their objects. The log
/// shows warnings and worse.
class LoadedPlugins {
public:
    /// Throws std::runtime_error if a plugin does not start.
    LoadedPlugins();
    ~LoadedPlugins();
    LoadedPlugins(const LoadedPlugins&) = delete;
    LoadedPlugins& operator=(const LoadedPlugins&) = delete;

private:
    const test::TempDir root;
    const std::shared_ptr<MqttClient> mqttClient;
};

} // namespace ktr::bench
