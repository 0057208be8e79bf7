#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace ktr::cli {

/// A folder that is made file by file and goes again, unless it is kept.
class NewFolder {
public:
    /// Makes `folder` and what is missing of the way there; an empty one that exists is used.
    /// Throws Failure(ExitCannotCreate) if it is not empty, is a file, or cannot be made.
    explicit NewFolder(const std::filesystem::path& folder);
    /// Removes all that was made, and nothing else, unless keep() was called.
    ~NewFolder();
    NewFolder(const NewFolder&) = delete;
    NewFolder& operator=(const NewFolder&) = delete;

    /// Makes the file `name`, relative to the folder, and folders in between. What begins with "#!"
    /// is made executable. Throws Failure(ExitCannotCreate) if it exists or cannot be written.
    void add(const std::filesystem::path& name, const std::string& text);

    void keep() { made.clear(); }

private:
    void makeFolder(const std::filesystem::path& path);
    void remove() noexcept;

    const std::filesystem::path root;
    /// In the order of their making.
    std::vector<std::filesystem::path> made;
};

} // namespace ktr::cli
