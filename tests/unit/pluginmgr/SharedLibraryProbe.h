#pragma once

#include <functional>
#include <string>
#include <vector>

namespace ktr::test {

/// What Poco::SharedLibrary is asked. A program that compiles SharedLibraryProbe.cpp in has the
/// functions in question replaced by ones that do the same and note it here.
struct SharedLibraryProbe {
    static SharedLibraryProbe& instance();

    /// "has NAME" and "get NAME", oldest first.
    std::vector<std::string> lookUps;
    /// Called before a library is unloaded; may throw.
    std::function<void()> onUnload;
};

} // namespace ktr::test
