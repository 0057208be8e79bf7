#pragma once

#include "FileReport.h"

namespace ktr::cli {

/// Looks at the first line of a service that is no ELF file.
void checkScript(FileReport& report);

} // namespace ktr::cli
