#pragma once

#include "FileReport.h"

#include <vector>

namespace ktr::cli {

/// Looks into a microservice without running it.
void checkService(FileReport& report);

/// Adds to services of one device what is wrong with their names together: the host ends by name
/// whatever bears the name of one of them.
void checkServiceNames(std::vector<FileReport>& reports);

} // namespace ktr::cli
