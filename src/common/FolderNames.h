#pragma once

#include <string>
#include <vector>

namespace ktr {

/// Appends the names of what `folder` holds, "." and ".." left out, in no order, each with `prefix`
/// before it. Returns 0, or the number of the error that came before the last of them.
/// std::filesystem would take each name apart as a path first, which is most of the time that a
/// listing takes.
int appendNames(const std::string& folder, const std::string& prefix,
                std::vector<std::string>& names);

} // namespace ktr
