#pragma once

#include "ktr/Export.h"

#include <string>

namespace ktr {

/// The answer of the system's routes: {"code":0,"msg":"success"}, with `message` (UTF-8) escaped as
/// JSON demands. Thread-safe.
KTR_API std::string makeJsonDefault(int code, std::string message);

} // namespace ktr
