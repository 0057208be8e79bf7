#pragma once

#include <cstddef>
#include <iostream>
#include <mutex>
#include <string>
#include <vector>

namespace ktr::soak {

/// What went wrong, told at once and kept for the end. Thread-safe.
class Problems {
public:
    void add(const std::string& text) {
        const std::lock_guard<std::mutex> lock(mutex);
        ++total;
        if (kept.size() == kMostKept)
            return;
        kept.push_back(text);
        std::cerr << "soak: FAILED: " << text << std::endl;
    }

    bool none() const { return count() == 0; }

    std::size_t count() const {
        const std::lock_guard<std::mutex> lock(mutex);
        return total;
    }

    std::vector<std::string> texts() const {
        const std::lock_guard<std::mutex> lock(mutex);
        return kept;
    }

private:
    // one cause may have a thousand effects
    static constexpr std::size_t kMostKept = 50;

    mutable std::mutex mutex;
    std::size_t total = 0;
    std::vector<std::string> kept;
};

} // namespace ktr::soak
