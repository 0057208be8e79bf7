#include "FolderNames.h"

#include <cerrno>
#include <dirent.h>
#include <memory>
#include <string_view>

namespace ktr {

int appendNames(const std::string& folder, const std::string& prefix,
                std::vector<std::string>& names) {
    const std::unique_ptr<DIR, int (*)(DIR*)> entries(opendir(folder.c_str()), &closedir);
    if (!entries)
        return errno;
    // only errno tells an error from the end
    errno = 0;
    while (const dirent* const entry = readdir(entries.get())) {
        const std::string_view name(entry->d_name);
        if (name != "." && name != "..") {
            std::string& added = names.emplace_back();
            added.reserve(prefix.size() + name.size());
            added.append(prefix).append(name);
        }
        errno = 0;
    }
    return errno;
}

} // namespace ktr
