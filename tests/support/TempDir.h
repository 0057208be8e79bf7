#pragma once

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

namespace ktr::test {

/// A fresh folder that goes, with all that is in it, when the object does.
class TempDir {
public:
    TempDir() {
        std::string name = (std::filesystem::temp_directory_path() / "ketra-test-XXXXXX").string();
        if (mkdtemp(name.data()) == nullptr)
            throw std::runtime_error("cannot make a temporary folder " + name);
        folder = std::filesystem::canonical(name);
    }
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(folder, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::filesystem::path& path() const { return folder; }
    std::filesystem::path operator/(const std::string& name) const { return folder / name; }

private:
    std::filesystem::path folder;
};

} // namespace ktr::test
