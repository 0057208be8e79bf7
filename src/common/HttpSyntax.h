#pragma once

#include <string_view>

namespace ktr {

/// Of which the names of methods and header fields are made.
constexpr bool isTokenCharacter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
           std::string_view("!#$%&'*+.^_`|~").find(c) != std::string_view::npos;
}

/// A tab is none.
constexpr bool isControl(char c) {
    return (static_cast<unsigned char>(c) < 0x20 && c != '\t') || c == 0x7f;
}

} // namespace ktr
