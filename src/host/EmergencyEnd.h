#pragma once

#include "ExitCode.h"

#include <string>

namespace ktr::host {

/// Says `text` on log and standard error, kills what child processes are left, and ends the process
/// with `code` at once, whatever its threads do and whatever they have locked. Nothing is torn
/// down.
[[noreturn]] void endAtOnce(ExitCode code, const std::string& text);

} // namespace ktr::host
