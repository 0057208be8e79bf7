#pragma once

#include "FileReport.h"

#include <vector>

namespace ktr::cli {

/// Adds to plugins of one device with the same guid that they are not alone.
void checkGuids(std::vector<FileReport>& reports);

} // namespace ktr::cli
