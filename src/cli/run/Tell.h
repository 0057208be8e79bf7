#pragma once

#include <string>

namespace ktr::cli {

/// Writes one line to standard error, whole, and without a lock that a hanging thread may hold.
void tell(const std::string& text);

} // namespace ktr::cli
