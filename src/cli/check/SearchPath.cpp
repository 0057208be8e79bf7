#include "SearchPath.h"

#include <Poco/Environment.h>
#include <Poco/StringTokenizer.h>

#include <filesystem>
#include <functional>
#include <unistd.h>

namespace ktr::cli {
namespace {

std::string findWhere(const std::string& name,
                      const std::function<bool(const std::filesystem::path&)>& isWanted) {
    const Poco::StringTokenizer folders(Poco::Environment::get("PATH", "") +
                                            ":/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin",
                                        ":", Poco::StringTokenizer::TOK_IGNORE_EMPTY);
    for (const std::string& folder : folders) {
        const std::filesystem::path file = std::filesystem::path(folder) / name;
        std::error_code unknown;
        if (std::filesystem::is_regular_file(file, unknown) && access(file.c_str(), X_OK) == 0 &&
            isWanted(file))
            return file;
    }
    return "";
}

} // namespace

std::string findProgram(const std::string& name) {
    return findWhere(name, [](const auto&) { return true; });
}

std::string otherProgram(const std::string& name, const std::string& path) {
    return findWhere(name, [&](const auto& file) {
        std::error_code unknown;
        return !std::filesystem::equivalent(file, path, unknown);
    });
}

} // namespace ktr::cli
