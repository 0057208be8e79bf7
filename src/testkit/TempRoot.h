#pragma once

#include <filesystem>

namespace ktr::testkit {

/// A temporary device root without services: `path()/plugins` has a link to the plugin, and
/// `listeners()/plugins` one to the spy. Removed with the object.
class TempRoot {
public:
    /// Throws std::runtime_error naming the remedy if one of the files cannot be used, or no folder
    /// made.
    explicit TempRoot(const std::filesystem::path& pluginFile);
    ~TempRoot();
    TempRoot(const TempRoot&) = delete;
    TempRoot& operator=(const TempRoot&) = delete;

    const std::filesystem::path& path() const { return root; }
    std::filesystem::path listeners() const { return root / "listeners"; }
    const std::filesystem::path& plugin() const { return pluginLink; }
    const std::filesystem::path& spy() const { return spyLink; }

private:
    std::filesystem::path root;
    std::filesystem::path pluginLink;
    std::filesystem::path spyLink;
};

} // namespace ktr::testkit
