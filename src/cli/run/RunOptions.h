#pragma once

#include "../CommandLine.h"
#include "../HostClient.h"

#include "ktr/common/MqttClient.h"

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace ktr::cli {

struct RunOptions {
    /// Absolute, as is the service's; that one is empty if there is none.
    std::filesystem::path plugin;
    std::filesystem::path service;
    /// What is reported in the service's place, but for the guid.
    ServiceReport report;
    std::string logLevel;
    MqttClient::Settings mqtt;
    unsigned short webPort = 0;
    /// How long the plugin may take to start.
    std::chrono::seconds wait{10};
    /// How long to go on after the end of the input, if that was said.
    std::optional<std::chrono::seconds> linger;
    bool keep = false;
    std::chrono::seconds shutdownTimeout{10};
};

/// What these mean for the command line.
std::vector<Option> runOptionTable();

/// Throws Failure for what cannot be used.
RunOptions readRunOptions(const Arguments& arguments);

} // namespace ktr::cli
