#pragma once

#include "FileReport.h"
#include "LinkTrace.h"

namespace ktr::cli {

/// Turns what the dynamic linker misses into findings. False if the file cannot even be mapped.
bool checkLinks(const LinkTrace& trace, FileReport& report);

} // namespace ktr::cli
