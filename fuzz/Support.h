#pragma once

#include "ktr/common/Logger.h"

#include <Poco/AutoPtr.h>
#include <Poco/NullChannel.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace ktr::fuzz {

/// Ends the run with `broken` as the finding. Not an exception: the code under test might catch it.
inline void require(bool holds, const char* broken) {
    if (holds)
        return;
    std::fprintf(stderr, "broken: %s\n", broken);
    std::abort();
}

/// Has every log text built, of every level, and none shown.
inline void muteLog() {
    cachedLogger().setChannel(Poco::AutoPtr<Poco::Channel>(new Poco::NullChannel));
    cachedLogger().setLevel(Poco::Message::PRIO_TRACE);
}

inline std::string text(const std::uint8_t* data, std::size_t size) {
    return {reinterpret_cast<const char*>(data), size};
}

/// The parts of `whole` between separators, at most `limit`; the last one may hold separators.
inline std::vector<std::string> split(const std::string& whole, char separator, std::size_t limit) {
    std::vector<std::string> parts;
    std::size_t begin = 0;
    for (std::size_t end = 0; parts.size() + 1 < limit && end != std::string::npos;) {
        end = whole.find(separator, begin);
        if (end == std::string::npos)
            break;
        parts.push_back(whole.substr(begin, end - begin));
        begin = end + 1;
    }
    parts.push_back(whole.substr(begin));
    return parts;
}

/// Takes a byte off the front of the input; 0 when there is none left.
class Bytes {
public:
    Bytes(const std::uint8_t* data, std::size_t size) : next(data), end(data + size) {}

    bool empty() const { return next == end; }
    std::uint8_t take() { return empty() ? std::uint8_t{0} : *next++; }

private:
    const std::uint8_t* next;
    const std::uint8_t* const end;
};

} // namespace ktr::fuzz

/// What libFuzzer calls, once per input.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
