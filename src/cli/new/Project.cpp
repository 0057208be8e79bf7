#include "Project.h"

#include "../ExitCode.h"
#include "NewFolder.h"
#include "Placeholders.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <vector>

namespace ktr::cli {
namespace {

namespace fs = std::filesystem;

constexpr const char* kSuffix = ".in";

/// Template folders, each laid over the one before.
std::vector<std::string> layersOf(ProjectKind kind) {
    switch (kind) {
    case ProjectKind::Plugin:
        return {"common", "shell", "plugin"};
    case ProjectKind::CppService:
        return {"common", "service-cpp"};
    case ProjectKind::ShellService:
        return {"common", "shell", "service-shell"};
    }
    throw std::logic_error("a kind of project without templates");
}

/// Beside the program, so that a tool in a build tree or under any prefix has its own.
fs::path templatesFolder() {
    return fs::read_symlink("/proc/self/exe").parent_path().parent_path() / "share/ketra/templates";
}

std::string readAll(const fs::path& file) {
    std::ifstream in(file, std::ios::binary);
    std::ostringstream text;
    if (in.peek() != std::ifstream::traits_type::eof())
        text << in.rdbuf();
    if (!in.is_open() || in.bad() || text.fail())
        throw Failure(ExitNoInput, "the template " + file.string() + " cannot be read (" +
                                       std::strerror(errno) + "); install ketra-dev anew");
    return text.str();
}

/// "x/@name@.h.in" gives "x/hello.h".
fs::path nameOf(const fs::path& file, const fs::path& layer, const Placeholders& values) {
    std::string name = file.lexically_relative(layer).string();
    if (file.extension() == kSuffix)
        name.resize(name.size() - std::strlen(kSuffix));
    return fill(name, values);
}

void addLayer(NewFolder& folder, const fs::path& layer, const Placeholders& values) {
    std::error_code error;
    fs::recursive_directory_iterator entries(layer, error);
    if (error)
        throw Failure(ExitNoInput, "the templates in " + layer.string() + " cannot be read (" +
                                       error.message() + "); install the package ketra-dev");
    for (const fs::directory_entry& entry : entries) {
        if (!entry.is_regular_file())
            continue;
        try {
            folder.add(nameOf(entry.path(), layer, values), fill(readAll(entry.path()), values));
        } catch (const std::invalid_argument& e) {
            throw Failure(ExitSoftware,
                          entry.path().string() + ": " + e.what() + "; install ketra-dev anew");
        }
    }
}

} // namespace

void makeProject(ProjectKind kind, const ProjectName& name, const std::string& guid,
                 const fs::path& directory) {
    const Placeholders values{{"name", name.text()},
                              {"Class", name.className()},
                              {"guid", guid},
                              {"version", KETRA_VERSION}};
    const fs::path templates = templatesFolder();
    NewFolder folder(directory);
    for (const std::string& layer : layersOf(kind))
        addLayer(folder, templates / layer, values);
    folder.keep();
}

} // namespace ktr::cli
