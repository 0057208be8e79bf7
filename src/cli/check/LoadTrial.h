#pragma once

#include "FileReport.h"

#include <chrono>

namespace ktr::cli {

/// Loads the plugin in a process of its own, in a folder that goes afterwards, and notes what it
/// says of itself and whatever it does that would harm the host.
void tryLoading(FileReport& report, std::chrono::seconds limit);

} // namespace ktr::cli
