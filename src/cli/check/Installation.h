#pragma once

#include "ElfFile.h"

#include <string>
#include <vector>

namespace ktr::cli {

/// What the libraries of this installation were built as and with; the tool itself stands for them.
const ElfFile& installation();

/// As in the notes of plugins: the version of POCO such as "1.11.0", the compiler, and whether
/// texts have the C++11 layout ("1") or the one before ("0").
std::string installedPoco();
std::string installedCompiler();
std::string installedCxx11Abi();

/// The libraries that a plugin finds loaded already, by their paths.
std::vector<std::string> hostLibraries();

} // namespace ktr::cli
