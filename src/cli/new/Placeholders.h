#pragma once

#include <map>
#include <string>

namespace ktr::cli {

/// By the word that stands between two '@' in a template.
using Placeholders = std::map<std::string, std::string>;

/// `text` with every @word@ replaced, in one pass: values are not looked through. Throws
/// std::invalid_argument for a word of letters that has no value.
std::string fill(const std::string& text, const Placeholders& values);

} // namespace ktr::cli
