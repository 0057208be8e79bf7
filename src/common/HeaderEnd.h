#pragma once

#include <cstddef>
#include <string_view>

namespace ktr {

/// Finds the end of a request's header in what comes from the client: its first empty line. Those
/// before the request line do not count.
class HeaderEnd {
public:
    /// How many of the bytes, which follow those of the call before, belong to the header.
    std::size_t find(std::string_view bytes) {
        for (std::size_t i = 0; i < bytes.size(); ++i) {
            if (bytes[i] == '\n') {
                reached = begun && lineIsEmpty;
                lineIsEmpty = true;
            } else if (bytes[i] != '\r') {
                begun = true;
                lineIsEmpty = false;
            }
            if (reached)
                return i + 1;
        }
        return bytes.size();
    }

    bool isReached() const { return reached; }

private:
    bool begun = false;
    bool lineIsEmpty = true;
    bool reached = false;
};

} // namespace ktr
