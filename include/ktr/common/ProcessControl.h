#pragma once

#include "ktr/Export.h"

#include <string>

namespace ktr {

/// Ends the process `pid`: SIGTERM, and SIGKILL after a second of grace. Returns when it is gone,
/// and reaps it if it is a child of this process. If it leads a process group of its own, the whole
/// group is ended, but for this process's ancestors; members that appear during the grace are not
/// sent SIGTERM, only killed at its end. Cannot hit a process that got a recycled pid. Refuses 0, 1
/// and the calling process with an error line; a pid that nobody bears does nothing. Never throws
/// for a process that resists or may not be signalled: that is logged, and given up five seconds
/// after SIGKILL. Thread-safe.
KTR_API void cleanProcessById(const unsigned int& pid);

/// Ends, as cleanProcessById does, every process whose executable's file name is `name`, or that
/// was started by its full path through a link of that name; all within one second of grace. A
/// script counts under its own file name, not its interpreter's. Names match in full, also beyond
/// the kernel's 15 characters. Spares the calling process and its ancestors. Never reaps: a child
/// that it ended is still there for its owner to wait for. An empty name matches nothing.
/// Thread-safe.
KTR_API void cleanProcessByName(const std::string& name);

} // namespace ktr
