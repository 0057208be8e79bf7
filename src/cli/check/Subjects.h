#pragma once

#include "FileReport.h"

#include <string>
#include <vector>

namespace ktr::cli {

/// A folder of plugins or services.
struct Tree {
    std::string root;
    /// Its path below the root.
    std::string name;

    std::string path() const { return root + "/" + name; }
};

/// What is to be checked.
struct Subjects {
    /// One for each file, with its path and kind.
    std::vector<FileReport> files;
    std::vector<Tree> trees;
};

/// What the paths of the command line stand for. Throws Failure(ExitNoInput) for one that does not
/// exist, and Failure(ExitUsage) for a folder that holds neither plugins nor services.
Subjects findSubjects(const std::vector<std::string>& paths);

} // namespace ktr::cli
