#pragma once

#include <filesystem>
#include <string>

namespace ktr::cli {

/// Opens a plugin's library and asks it for its guid. Throws Failure, with ExitNoInput if there is
/// no such file and ExitFindings if the host could not use it.
///
/// The library stays open: the loader then finds it by this path, and the plugin what lies beside
/// it, although the host comes to it by a link.
std::string openPlugin(const std::filesystem::path& file);

/// Ends a text of what is wrong with a plugin.
std::string hintToCheck(const std::filesystem::path& file);

} // namespace ktr::cli
