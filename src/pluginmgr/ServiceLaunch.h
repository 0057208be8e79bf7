#pragma once

#include <Poco/Process.h>

#include <string>

namespace ktr {

/// Launches `path` with `arguments` in `directory`, as Poco::Process::launch does, but so that the
/// service starts from a clean state whatever the host does: no signal blocked or ignored, leader
/// of a process group of its own, standard input from /dev/null. Throws Poco::SystemException if no
/// process can be made; a file that cannot be executed shows as a child that ends with code 72.
/// The caller waits for the process and ends it. Thread-safe.
Poco::ProcessHandle launchService(const std::string& path, const Poco::Process::Args& arguments,
                                  const std::string& directory);

} // namespace ktr
