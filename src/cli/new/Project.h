#pragma once

#include "ProjectName.h"

#include <filesystem>
#include <string>

namespace ktr::cli {

enum class ProjectKind { Plugin, CppService, ShellService };

/// Makes the project in `directory` from the templates beside this program. Throws Failure, and
/// leaves nothing behind then.
void makeProject(ProjectKind kind, const ProjectName& name, const std::string& guid,
                 const std::filesystem::path& directory);

} // namespace ktr::cli
