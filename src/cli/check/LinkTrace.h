#pragma once

#include <string>
#include <vector>

namespace ktr::cli {

/// What the dynamic linker does not find for a file.
struct LinkTrace {
    std::vector<std::string> missingLibraries;
    /// Lines of the linker that name a version of a library's interface.
    std::vector<std::string> missingVersions;
    /// Demangled, with the file that wants it where that is another one.
    std::vector<std::string> missingSymbols;
    /// Why there is no answer; empty if there is one.
    std::string failure;
};

/// Asks the dynamic linker of this installation to say how it would load a plugin beside what the
/// host has loaded. It maps and links, but runs no code of what it maps.
LinkTrace traceLibrary(const std::string& path);

/// The same for a program by itself.
LinkTrace traceProgram(const std::string& path);

} // namespace ktr::cli
