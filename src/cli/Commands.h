#pragma once

#include "CommandLine.h"

#include <vector>

namespace ktr::cli {

/// Each is made by the file of its name.
Command checkCommand();
Command completionCommand();
Command newCommand();
Command reportCommand();
Command runCommand();

/// All commands, in the order of the help.
const std::vector<Command>& commands();

} // namespace ktr::cli
