#pragma once

#include <string>

namespace ktr::cli {

/// The program that a shell would run for `name`, by PATH and the system's own folders; empty if
/// there is none.
std::string findProgram(const std::string& name);

/// A program called `name` there that is another file than `path`; empty if there is none.
std::string otherProgram(const std::string& name, const std::string& path);

} // namespace ktr::cli
