#pragma once

#include <cstddef>
#include <optional>
#include <string>

namespace ktr::cli {

/// Reads lines until the end of the input or the wish that the run ends.
class InputLines {
public:
    /// The descriptor stays the caller's.
    explicit InputLines(int descriptor_) : descriptor(descriptor_) {}

    /// The next line without its break, which the last one may lack; none at the end. Throws
    /// Failure(ExitSystem) if the input cannot be read.
    std::optional<std::string> next();

    /// The number of the line that next returned, from 1.
    std::size_t number() const { return count; }

    /// A line that is longer comes as an empty one, with this set.
    static constexpr std::size_t kLongest = 16'777'216;
    bool wasTooLong() const { return tooLong; }

private:
    bool fill();
    std::string take(std::size_t end);

    const int descriptor;
    std::string buffer;
    /// Where the search for a line's end goes on.
    std::size_t searched = 0;
    bool atEnd = false;
    bool dropping = false;
    bool tooLong = false;
    std::size_t count = 0;
};

} // namespace ktr::cli
