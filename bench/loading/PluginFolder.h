#pragma once

#include "support/TempDir.h"

#include <filesystem>
#include <string>
#include <vector>

namespace ktr::bench {

/// A host's root with `count` plugins, each a file and a guid of its own. Whoever loads them finds
/// their files in the page cache.
class PluginFolder {
public:
    /// Their numbers, and so their guids, begin with `first`.
    explicit PluginFolder(int count, int first = 1);

    /// What holds "plugins".
    const std::filesystem::path& root() const { return folder.path(); }
    const std::vector<std::string>& paths() const { return files; }

    /// How many of them are mapped into this process.
    std::size_t countMapped() const;

private:
    test::TempDir folder;
    std::vector<std::string> files;
};

} // namespace ktr::bench
