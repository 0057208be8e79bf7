// Listing a tree that the input describes: each byte pair is a step of building it.

#include "Support.h"
#include "support/TempDir.h"

#include "ktr/common/FileSystem.h"

#include <algorithm>
#include <array>
#include <fcntl.h>
#include <filesystem>
#include <set>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace ktr::fuzz {
namespace {

namespace fs = std::filesystem;
using FileId = std::pair<dev_t, ino_t>;

// deeper or larger trees take long to build and clear, and are no different
constexpr std::size_t kMaxSteps = 200;

const std::array<std::string, 16> kNames{"a",
                                         "b",
                                         "libKetraPluginA.so",
                                         "libKetraPluginA.so.1",
                                         " ",
                                         "\n",
                                         "...",
                                         "-rf",
                                         "*?",
                                         "\xff\xfe",
                                         "\xc3\xa4",
                                         "a\\b",
                                         "%s",
                                         "~",
                                         "\"'",
                                         "a:b"};

/// Builds the tree. A step that cannot be made, because its name is taken, is left out.
class Builder {
public:
    explicit Builder(fs::path root_) : root(std::move(root_)), current(root) {}

    void step(std::uint8_t action, std::uint8_t name) {
        const fs::path path = current / kNames[name % kNames.size()];
        const fs::path other = current / kNames[name / kNames.size()];
        std::error_code ignored;
        switch (action % 8) {
        case 0:
            // never by a link, which may lead out of the tree
            fs::create_directory(path, ignored);
            if (fs::symlink_status(path, ignored).type() == fs::file_type::directory)
                current = path;
            break;
        case 1:
            if (current != root)
                current = current.parent_path();
            break;
        case 2:
            makeFile(path, 0644);
            break;
        case 3:
            makeFile(path, 0755);
            break;
        case 4:
            fs::create_symlink(other.filename(), path, ignored);
            break;
        case 5:
            fs::create_symlink(name % 2 == 0 ? fs::path("..") : root, path, ignored);
            break;
        case 6:
            fs::create_hard_link(other, path, ignored);
            break;
        default:
            mkfifo(path.c_str(), 0755);
            break;
        }
    }

private:
    static void makeFile(const fs::path& path, mode_t mode) {
        const int descriptor = open(path.c_str(), O_CREAT | O_EXCL | O_WRONLY, mode);
        if (descriptor >= 0)
            close(descriptor);
    }

    const fs::path root;
    fs::path current;
};

FileId idOf(const struct stat& status) {
    return {status.st_dev, status.st_ino};
}

/// The regular files that can be reached, by the plainest way to find them.
void reach(const fs::path& folder, std::set<FileId>& folders, std::set<FileId>& files) {
    for (const auto& entry : fs::directory_iterator(folder)) {
        struct stat status {};
        if (stat(entry.path().c_str(), &status) != 0)
            continue;
        if (S_ISREG(status.st_mode))
            files.insert(idOf(status));
        if (S_ISDIR(status.st_mode) && folders.insert(idOf(status)).second)
            reach(entry.path(), folders, files);
    }
}

void checkListing(const fs::path& root, ListFileType type, const std::string& filter) {
    std::list<std::string> listed;
    listFilesRecursively(Poco::Path(root.string()), listed, type, filter);
    std::set<FileId> seen;
    for (const std::string& path : listed) {
        struct stat status {};
        require(stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode),
                "what is listed is a regular file");
        require(path.rfind(root.string() + "/", 0) == 0, "what is listed lies in the folder");
        require(path.find(filter, path.rfind('/')) != std::string::npos, "its name has the filter");
        require(seen.insert(idOf(status)).second || type == ListFileType::Executable,
                "no file is listed twice");
        require(type == ListFileType::Regular || (status.st_mode & S_IXUSR) != 0,
                "an executable can be executed");
    }
    std::set<FileId> folders;
    std::set<FileId> files;
    struct stat status {};
    stat(root.c_str(), &status);
    folders.insert(idOf(status));
    reach(root, folders, files);
    require(type != ListFileType::Regular || !filter.empty() || seen == files,
            "every file that can be reached is listed");
}

} // namespace
} // namespace ktr::fuzz

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace ktr::fuzz;
    [[maybe_unused]] static const bool isSetUp = (muteLog(), true);
    const ktr::test::TempDir folder;
    // a link to .. is to lead to nothing of others
    const fs::path root = folder / "root";
    fs::create_directory(root);
    Builder builder(root);
    Bytes bytes(data, std::min(size, 2 * kMaxSteps));
    while (!bytes.empty()) {
        const std::uint8_t action = bytes.take();
        builder.step(action, bytes.take());
    }
    for (const auto type : {ktr::ListFileType::Executable, ktr::ListFileType::Regular})
        for (const char* filter : {"", "libKetraPlugin"})
            checkListing(root, type, filter);
    return 0;
}
