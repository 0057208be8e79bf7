#pragma once

#include <string>

namespace ktr::host {

/// The first line of the file at `path`, without white space at its end. Throws StartError when it
/// cannot be read, or when others than root and the host's user could read or change it.
std::string readTokenFile(const std::string& path);

} // namespace ktr::host
