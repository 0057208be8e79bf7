#pragma once

#include "FileReport.h"

namespace ktr::cli {

/// Looks into a plugin library without running it. False if there is no use in loading it, since
/// the dynamic linker would refuse it for what was found.
bool checkLibrary(FileReport& report);

} // namespace ktr::cli
