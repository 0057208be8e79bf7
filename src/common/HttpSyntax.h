#pragma once

#include <Poco/Ascii.h>

#include <string_view>

namespace ktr {

/// Of which the names of methods and header fields are made.
inline bool isTokenCharacter(char c) {
    return Poco::Ascii::isAlphaNumeric(c) ||
           std::string_view("!#$%&'*+-.^_`|~").find(c) != std::string_view::npos;
}

/// A tab is none.
inline bool isControl(char c) {
    return (static_cast<unsigned char>(c) < 0x20 && c != '\t') || c == 0x7f;
}

} // namespace ktr
