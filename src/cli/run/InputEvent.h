#pragma once

#include <stdexcept>
#include <string>

namespace ktr::cli {

/// An event that was typed.
struct InputEvent {
    /// As it is to be raised.
    std::string text;
    /// How often the plugin will get it.
    int deliveries = 0;
};

/// Says what is wrong with a line.
class BadLine : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Reads a line that is not blank: one JSON object. Without "to" it is addressed to `guid`, and is
/// else left as it is. Throws BadLine.
InputEvent readEvent(const std::string& line, const std::string& guid);

} // namespace ktr::cli
