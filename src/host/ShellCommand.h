#pragma once

#include <string>

namespace ktr::host {

/// `command` with the absolute `path` as its last argument, as a POSIX shell takes it: in one line
/// that can be pasted, whatever the path holds.
std::string shellCommand(const std::string& command, const std::string& path);

} // namespace ktr::host
