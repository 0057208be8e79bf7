#pragma once

#include "Settings.h"

namespace ktr::host {

/// Sets level and destination of cachedLogger(). Throws StartError if the log file or its rotation
/// cannot be used; the log then stays as it was.
void setUpLog(const Settings& settings);

} // namespace ktr::host
