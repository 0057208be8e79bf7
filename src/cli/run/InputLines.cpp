#include "InputLines.h"

#include "Stop.h"

#include "../ExitCode.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <unistd.h>

namespace ktr::cli {

std::optional<std::string> InputLines::next() {
    while (!stopRequested()) {
        const std::size_t end = buffer.find('\n', searched);
        if (end != std::string::npos)
            return take(end);
        if (atEnd && (dropping || !buffer.empty()))
            return take(buffer.size());
        if (atEnd)
            return std::nullopt;
        if (buffer.size() > kLongest) {
            dropping = true;
            buffer.clear();
        }
        searched = buffer.size();
        atEnd = !fill();
    }
    return std::nullopt;
}

std::string InputLines::take(std::size_t end) {
    std::string line = dropping ? "" : buffer.substr(0, end);
    buffer.erase(0, end + 1);
    searched = 0;
    tooLong = dropping;
    dropping = false;
    ++count;
    return line;
}

/// False at the end of the input.
bool InputLines::fill() {
    std::array<pollfd, 2> wanted{{{descriptor, POLLIN, 0}, {stopDescriptor(), POLLIN, 0}}};
    poll(wanted.data(), wanted.size(), -1);
    if (wanted[0].revents == 0)
        return true;
    std::array<char, 65'536> part{};
    const ssize_t size = read(descriptor, part.data(), part.size());
    if (size < 0 && errno != EINTR && errno != EAGAIN)
        throw Failure(ExitSystem,
                      std::string("standard input cannot be read: ") + std::strerror(errno));
    if (size > 0)
        buffer.append(part.data(), static_cast<std::size_t>(size));
    return size != 0;
}

} // namespace ktr::cli
