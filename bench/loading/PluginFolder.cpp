#include "PluginFolder.h"

#include "common/Guids.h"

#include <fstream>
#include <iterator>
#include <link.h>
#include <stdexcept>
#include <string_view>

namespace ktr::bench {
namespace {

constexpr std::string_view kGuid = example::kThermometerGuid;
constexpr std::size_t kDigits = 12;

std::string contentOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::string content{std::istreambuf_iterator<char>(file), {}};
    if (content.find(kGuid) == std::string::npos)
        throw std::runtime_error("no guid to replace in " + path);
    return content;
}

/// The guid with another last group.
std::string guidOf(int number) {
    const std::string digits = std::to_string(number);
    std::string guid(kGuid);
    return guid.replace(guid.size() - kDigits, kDigits,
                        std::string(kDigits - digits.size(), '0') + digits);
}

std::string withGuid(std::string content, const std::string& guid) {
    for (auto at = content.find(kGuid); at != std::string::npos; at = content.find(kGuid, at))
        content.replace(at, guid.size(), guid);
    return content;
}

} // namespace

PluginFolder::PluginFolder(int count, int first) {
    const std::string original = contentOf(KETRA_BENCH_PLUGIN);
    const std::filesystem::path plugins = folder / "plugins";
    std::filesystem::create_directory(plugins);
    for (int number = first; number < first + count; ++number) {
        files.push_back((plugins / ("libKetraPlugin" + std::to_string(number) + ".so")).string());
        std::ofstream file(files.back(), std::ios::binary);
        if (!(file << withGuid(original, guidOf(number))).flush())
            throw std::runtime_error("cannot write " + files.back());
    }
}

std::size_t PluginFolder::countMapped() const {
    struct Search {
        std::string prefix;
        std::size_t found;
    } search{(folder / "plugins").string() + "/", 0};
    dl_iterate_phdr(
        [](dl_phdr_info* library, std::size_t, void* data) {
            auto& wanted = *static_cast<Search*>(data);
            if (std::string_view(library->dlpi_name).rfind(wanted.prefix, 0) == 0)
                ++wanted.found;
            return 0;
        },
        &search);
    return search.found;
}

} // namespace ktr::bench
