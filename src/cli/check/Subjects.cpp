#include "Subjects.h"

#include "../CommandLine.h"
#include "ElfFile.h"

#include "ktr/common/FileSystem.h"

#include <filesystem>
#include <fstream>
#include <list>
#include <set>
#include <sys/stat.h>
#include <system_error>
#include <utility>

namespace ktr::cli {
namespace {

constexpr const char* kPluginTree = "plugins";
constexpr const char* kServiceTree = "microservices";

using FileId = std::pair<dev_t, ino_t>;

FileId idOf(const std::string& path) {
    struct stat status {};
    stat(path.c_str(), &status);
    return {status.st_dev, status.st_ino};
}

std::list<std::string> filesBelow(const std::string& folder, ListFileType type,
                                  const std::string& filter) {
    std::list<std::string> files;
    listFilesRecursively(Poco::Path(folder).makeDirectory(), files, type, filter);
    return files;
}

bool isLibraryName(const std::string& path) {
    const std::string name = path.substr(path.rfind('/') + 1);
    const auto at = name.rfind(".so");
    return name.find("libKetraPlugin") != std::string::npos ||
           (at != std::string::npos && (at + 3 == name.size() || name[at + 3] == '.'));
}

std::optional<ElfFile> tryElf(const std::string& path) {
    try {
        return readElf(path);
    } catch (const std::system_error&) {
        return std::nullopt;
    }
}

/// Those beside the plugins are for the plugins' own needs.
bool isMisnamedPlugin(const std::string& path) {
    const std::optional<ElfFile> file = isLibraryName(path) ? tryElf(path) : std::nullopt;
    return file && file->exported.count("PluginLoad") != 0;
}

/// Services have data and settings beside them.
bool looksLikeAProgram(const std::string& path) {
    std::string start(2, '\0');
    std::ifstream(path, std::ios::binary).read(start.data(), 2);
    if (start == "#!")
        return true;
    const std::optional<ElfFile> file = tryElf(path);
    return file && file->isProgram();
}

class Search {
public:
    void add(const std::string& path) {
        std::error_code error;
        const auto status = std::filesystem::status(path, error);
        if (std::filesystem::is_directory(status))
            addFolder(path);
        else if (std::filesystem::is_regular_file(status))
            addNamedFile(std::filesystem::absolute(path).lexically_normal());
        else
            throw Failure(ExitNoInput, "'" + path + "' " +
                                           (std::filesystem::exists(status)
                                                ? "is neither a file nor a folder"
                                                : "cannot be found: " + error.message()) +
                                           "; name a plugin, a service or a folder of them");
    }

    Subjects found;

private:
    void addFolder(const std::string& path) {
        const std::filesystem::path folder = std::filesystem::canonical(path);
        const bool hasPlugins = std::filesystem::is_directory(folder / kPluginTree);
        const bool hasServices = std::filesystem::is_directory(folder / kServiceTree);
        if (hasPlugins)
            addPlugins({path, kPluginTree}, folder / kPluginTree, folder);
        if (hasServices)
            addServices({path, kServiceTree}, folder / kServiceTree, folder);
        if (!hasPlugins && !hasServices)
            addTree(folder, path);
    }

    /// Or a folder in one.
    void addTree(const std::filesystem::path& folder, const std::string& named) {
        for (std::filesystem::path at = folder; at.has_relative_path(); at = at.parent_path()) {
            const std::filesystem::path root = at.parent_path();
            const Tree tree{root, folder.lexically_relative(root)};
            if (at.filename() == kPluginTree)
                return addPlugins(tree, folder, root);
            if (at.filename() == kServiceTree)
                return addServices(tree, folder, root);
        }
        throw Failure(ExitUsage, "'" + named +
                                     "' holds neither a folder 'plugins' nor 'microservices', and "
                                     "is none of them; name a device's root, one of these folders, "
                                     "or the files themselves");
    }

    void addPlugins(const Tree& tree, const std::string& folder, const std::string& device) {
        found.trees.push_back(tree);
        for (const std::string& path : filesBelow(folder, ListFileType::Regular, "libKetraPlugin"))
            addPlugin(path, device);
        for (const std::string& path : filesBelow(folder, ListFileType::Regular, ""))
            if (isMisnamedPlugin(path))
                addPlugin(path, device);
    }

    void addServices(const Tree& tree, const std::string& folder, const std::string& device) {
        found.trees.push_back(tree);
        // each of several links to one file is a service
        for (const std::string& path : filesBelow(folder, ListFileType::Executable, ""))
            addService(path, device);
        for (const std::string& path : filesBelow(folder, ListFileType::Regular, ""))
            if (services.count(idOf(path)) == 0 && looksLikeAProgram(path))
                addService(path, device);
    }

    void addNamedFile(const std::string& path) {
        if (isLibraryName(path) || (!looksLikeAProgram(path) && tryElf(path)))
            addPlugin(path, "");
        else
            addService(path, "");
    }

    void addPlugin(const std::string& path, const std::string& device) {
        if (plugins.insert(idOf(path)).second)
            addFile(path, "plugin", device);
    }

    void addService(const std::string& path, const std::string& device) {
        services.insert(idOf(path));
        if (servicePaths.insert(path).second)
            addFile(path, "service", device);
    }

    void addFile(const std::string& path, const std::string& kind, const std::string& device) {
        FileReport report;
        report.path = path;
        report.kind = kind;
        report.device = device;
        found.files.push_back(report);
    }

    std::set<FileId> plugins;
    std::set<FileId> services;
    std::set<std::string> servicePaths;
};

} // namespace

Subjects findSubjects(const std::vector<std::string>& paths) {
    Search search;
    for (const std::string& path : paths)
        try {
            search.add(path);
        } catch (const std::filesystem::filesystem_error& e) {
            throw Failure(ExitNoInput, "'" + path + "' cannot be read: " + e.code().message() +
                                           "; check it as a user who may");
        }
    return std::move(search.found);
}

} // namespace ktr::cli
