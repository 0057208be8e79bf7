#pragma once

namespace ktr::cli {

/// The wish that a run ends: of the user, by SIGINT, SIGTERM or SIGHUP, or of the tool itself. Once
/// uttered it stays. All functions may be called from any thread.

/// From here on these signals are such a wish. They are handled rather than blocked, for a debugger
/// sees only signals that arrive.
void takeStopSignals();

void requestStop();
bool stopRequested();

/// Is readable once the run shall end; never to be read.
int stopDescriptor();

} // namespace ktr::cli
