#pragma once

#include "support/TempDir.h"

#include <filesystem>
#include <map>
#include <string>
#include <sys/types.h>
#include <vector>

namespace ktr::bench {

/// A host's root with `count` services, which do nothing. Their names are unique on this machine,
/// since a host ends by name what is left of them. Whatever of them runs ends with the object.
class ServiceFolder {
public:
    explicit ServiceFolder(int count);
    ~ServiceFolder();
    ServiceFolder(const ServiceFolder&) = delete;
    ServiceFolder& operator=(const ServiceFolder&) = delete;

    /// What holds "microservices".
    const std::filesystem::path& root() const { return folder.path(); }
    const std::vector<std::string>& paths() const { return files; }

    /// The process of each service that runs, by the service's path.
    std::map<std::string, pid_t> running() const;
    bool allRun() const { return running().size() == files.size(); }

private:
    test::TempDir folder;
    std::vector<std::string> files;
};

} // namespace ktr::bench
