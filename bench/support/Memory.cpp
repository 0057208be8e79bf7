#include "Memory.h"

#include <Poco/Exception.h>

#include <algorithm>
#include <fstream>
#include <malloc.h>
#include <string>

namespace ktr::bench {
namespace {

/// A line of /proc/self/status, in bytes.
std::size_t status(const std::string& wanted) {
    constexpr std::size_t kibibyte = 1024;
    std::ifstream file("/proc/self/status");
    for (std::string name; file >> name;) {
        std::size_t value = 0;
        if (name == wanted && file >> value)
            return value * kibibyte;
    }
    throw Poco::NotFoundException("/proc/self/status", wanted);
}

/// The peak is the present value again.
void resetPeak() {
    std::ofstream file("/proc/self/clear_refs");
    if (!(file << "5" << std::flush))
        throw Poco::WriteFileException("/proc/self/clear_refs");
}

} // namespace

PeakMemory::PeakMemory() {
    malloc_trim(0);
    resetPeak();
    before = status("VmRSS:");
}

std::size_t PeakMemory::growth() const {
    const std::size_t peak = status("VmHWM:");
    return peak - std::min(peak, before);
}

} // namespace ktr::bench
