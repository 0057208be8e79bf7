#pragma once

#include <string>

namespace ktr::bench {

/// Bytes of the library at `path` as it is shipped, without symbols and debug information. Throws
/// std::runtime_error if it cannot be stripped.
double strippedSize(const std::string& path);

/// How many places of it the loader has to fill in. Throws std::runtime_error if it cannot be read.
double relocations(const std::string& path);

} // namespace ktr::bench
