#include "TempRoot.h"

#include <cstdlib>
#include <dlfcn.h>
#include <stdexcept>
#include <string>
#include <system_error>

namespace ktr::testkit {
namespace {

namespace fs = std::filesystem;

constexpr const char* kNamePart = "libKetraPlugin";

/// It lies beside this library, in the build as where it is installed.
fs::path spyFile() {
    static const int anchor = 0;
    Dl_info info{};
    std::error_code error;
    fs::path file;
    if (dladdr(&anchor, &info) != 0)
        file = fs::canonical(info.dli_fname, error).parent_path() / "ketra/libKetraPluginSpy.so";
    if (!fs::is_regular_file(file, error))
        throw std::runtime_error("the test kit's listener " + file.string() +
                                 " is missing; build the target KetraPluginSpy or install the "
                                 "test kit anew");
    return file;
}

void requirePlugin(const fs::path& file) {
    std::error_code error;
    if (!fs::is_regular_file(file, error))
        throw std::runtime_error("there is no plugin library " + file.string() +
                                 "; build it first, and name its file from " +
                                 fs::current_path(error).string());
    if (file.filename().string().find(kNamePart) == std::string::npos)
        throw std::runtime_error("the host would not load " + file.string() +
                                 "; give it a file name that contains " + kNamePart);
}

fs::path linkIn(const fs::path& folder, const fs::path& file) {
    fs::create_directories(folder);
    fs::path link = folder / file.filename();
    fs::create_symlink(fs::absolute(file), link);
    return link;
}

fs::path makeTemporaryFolder() {
    std::string name = (fs::temp_directory_path() / "ketra-testkit-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr)
        throw std::runtime_error("cannot make a temporary folder " + name +
                                 "; set TMPDIR to a folder in which that can be done");
    return fs::canonical(name);
}

void removeAll(const fs::path& folder) {
    std::error_code ignored;
    fs::remove_all(folder, ignored);
}

} // namespace

TempRoot::TempRoot(const fs::path& pluginFile) {
    requirePlugin(pluginFile);
    const fs::path spyLibrary = spyFile();
    root = makeTemporaryFolder();
    try {
        pluginLink = linkIn(root / "plugins", pluginFile);
        spyLink = linkIn(listeners() / "plugins", spyLibrary);
    } catch (...) {
        removeAll(root);
        throw;
    }
}

TempRoot::~TempRoot() {
    removeAll(root);
}

} // namespace ktr::testkit
