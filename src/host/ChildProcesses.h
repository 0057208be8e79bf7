#pragma once

namespace ktr::host {

/// Kills every child process of this one, and the group of each that leads one, until none is left
/// or a second has passed. For an end in disorder, when nobody waits for them any more.
void killChildProcesses();

} // namespace ktr::host
