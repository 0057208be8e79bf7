#pragma once

#include <algorithm>
#include <string>

namespace ktr::host {

inline bool isControl(unsigned char c) {
    return c < 0x20 || c == 0x7f;
}

/// `text` in one line and without what terminals take for commands. Values and file names of others
/// may hold both.
inline std::string printable(std::string text) {
    std::replace_if(text.begin(), text.end(), isControl, '?');
    return text;
}

} // namespace ktr::host
