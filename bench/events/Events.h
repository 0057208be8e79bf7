#pragma once

#include <chrono>
#include <cstddef>
#include <string>

namespace ktr::bench {

/// An event as plugins raise them, to the plugins from `first` on. It takes `size` bytes if it goes
/// to one; each further recipient adds its guid.
std::string eventText(std::size_t size, std::size_t first, std::size_t recipients = 1,
                      const std::string& api = "status");

/// Writes into the event that it is raised now.
void stamp(std::string& event);

/// How long ago that was.
std::chrono::nanoseconds ageOf(const std::string& event);

} // namespace ktr::bench
