#pragma once

#include "FileReport.h"
#include "Subjects.h"

#include <sys/types.h>
#include <vector>

namespace ktr::cli {

/// Adds what others than root and the host's user could change in the trees; the host leaves such a
/// tree out. Paths that have no report get one.
void checkOwners(const std::vector<Tree>& trees, uid_t user, std::vector<FileReport>& reports);

} // namespace ktr::cli
