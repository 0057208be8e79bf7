#pragma once

namespace ktr::cli {

/// Takes a standard stream away from the plugin and its service, which may write or read there what
/// is not meant for the tool's own: returns a descriptor of it that nobody inherits, and puts a
/// copy of `replacement` in its place. Throws Failure(ExitSystem) if it is closed.
int takeStandardStream(int stream, int replacement);

/// The same, with /dev/null as the replacement.
int takeStandardInput();

} // namespace ktr::cli
