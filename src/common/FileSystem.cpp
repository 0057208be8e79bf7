#include "ktr/common/FileSystem.h"

#include "FolderNames.h"
#include "ktr/common/Logger.h"

#include <Poco/Exception.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <set>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace ktr {
namespace {

/// A file or folder, whatever the path that leads to it.
using FileId = std::pair<dev_t, ino_t>;

std::string join(const std::string& folder, const std::string& name) {
    return folder.back() == '/' ? folder + name : folder + "/" + name;
}

void logPassedOver(const std::string& path, const std::string& reason) {
    if (cachedLogger().warning())
        cachedLogger().warning("cannot list '" + path + "': " + reason + "; passed over", __FILE__,
                               __LINE__);
}

/// Walks a tree with a list of what is still to be visited rather than by recursion, so that no
/// depth of folders can exhaust the stack or the descriptors: a folder is closed before its entries
/// are looked at.
class Walk {
public:
    Walk(std::list<std::string>& out_, ListFileType type_, const std::string& filter_)
        : out(out_), type(type_), filter(filter_) {}

    void run(const std::string& root) {
        struct stat status {};
        if (stat(root.c_str(), &status) != 0) {
            if (errno != ENOENT)
                logPassedOver(root, std::strerror(errno));
            return;
        }
        if (S_ISDIR(status.st_mode))
            enter(root, status);
        else
            logPassedOver(root, std::strerror(ENOTDIR));
        while (!pending.empty()) {
            std::string path = std::move(pending.back());
            pending.pop_back();
            visit(std::move(path));
        }
    }

private:
    void visit(std::string path) {
        struct stat status {};
        if (stat(path.c_str(), &status) != 0) {
            // a link that leads nowhere or in a circle, or a file that just went
            if (errno != ENOENT && errno != ELOOP)
                logPassedOver(path, std::strerror(errno));
        } else if (S_ISDIR(status.st_mode)) {
            enter(path, status);
        } else if (S_ISREG(status.st_mode) && isWanted(path, status)) {
            out.push_back(std::move(path));
        }
    }

    void enter(const std::string& folder, const struct stat& status) {
        if (!entered.emplace(status.st_dev, status.st_ino).second)
            return;
        // a folder that may be read but not searched would fail once for each of its entries
        if (faccessat(AT_FDCWD, folder.c_str(), X_OK, AT_EACCESS) != 0) {
            logPassedOver(folder, std::strerror(errno));
            return;
        }
        const auto first = static_cast<std::ptrdiff_t>(pending.size());
        if (const int error = appendNames(folder, join(folder, ""), pending); error != 0)
            logPassedOver(folder, std::strerror(error));
        std::sort(pending.begin() + first, pending.end(), std::greater<>());
    }

    bool isWanted(const std::string& path, const struct stat& status) {
        if (path.find(filter, path.rfind('/') + 1) == std::string::npos)
            return false;
        if (type == ListFileType::Executable)
            return faccessat(AT_FDCWD, path.c_str(), X_OK, AT_EACCESS) == 0;
        return listed.emplace(status.st_dev, status.st_ino).second;
    }

    std::list<std::string>& out;
    const ListFileType type;
    const std::string& filter;
    // the next one last
    std::vector<std::string> pending;
    std::set<FileId> entered;
    std::set<FileId> listed;
};

} // namespace

std::string getCurrentPath() {
    std::error_code error;
    const std::filesystem::path path = std::filesystem::current_path(error);
    if (error)
        throw Poco::SystemException("cannot read the current directory, see that it exists",
                                    error.message(), error.value());
    return path.string();
}

std::string getCurrentChildPath(const std::string& name) {
    return join(getCurrentPath(), name);
}

void listFilesRecursively(const Poco::Path& dir, std::list<std::string>& out,
                          const ListFileType& type, const std::string& filter) {
    const std::string root = dir.toString();
    if (!root.empty())
        Walk(out, type, filter).run(dir.isRelative() ? getCurrentChildPath(root) : root);
}

} // namespace ktr
