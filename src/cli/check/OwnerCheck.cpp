#include "OwnerCheck.h"

#include "host/TreeCheck.h"

#include <algorithm>
#include <filesystem>
#include <map>

namespace ktr::cli {
namespace {

FileReport& reportOf(const std::string& path, std::vector<FileReport>& reports) {
    const auto at = std::find_if(reports.begin(), reports.end(),
                                 [&](const FileReport& report) { return report.path == path; });
    if (at != reports.end())
        return *at;
    std::error_code unknown;
    FileReport report;
    report.path = path;
    report.kind = std::filesystem::is_directory(path, unknown) ? "folder" : "file";
    reports.push_back(report);
    return reports.back();
}

} // namespace

void checkOwners(const std::vector<Tree>& trees, uid_t user, std::vector<FileReport>& reports) {
    // both trees of a root have the way there in common, which is told of once
    std::map<std::string, host::TreeCheck> checks;
    for (const Tree& tree : trees) {
        const host::TreeCheck::Findings found =
            checks.try_emplace(tree.root, tree.root, user).first->second.run(tree.name);
        for (const auto& [path, fault, remedy] : found.violations)
            reportOf(path, reports)
                .fault("others-can-change", fault + ", so the host leaves the whole tree out",
                       "look at what was put there, and mend it with: " + remedy);
        if (found.more > 0)
            reportOf(tree.path(), reports)
                .fault("others-can-change",
                       "holds " + std::to_string(found.more) + " more paths that others can change",
                       "mend those that are named, and check again");
    }
}

} // namespace ktr::cli
