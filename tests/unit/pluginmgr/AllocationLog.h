#pragma once

#include <cstddef>
#include <vector>

namespace ktr::test {

/// The sizes of what the calling thread allocates while the object lives, oldest first. Programs
/// that use it compile in AllocationLog.cpp.
class AllocationLog {
public:
    AllocationLog();
    ~AllocationLog();
    AllocationLog(const AllocationLog&) = delete;
    AllocationLog& operator=(const AllocationLog&) = delete;

    std::vector<std::size_t> sizes;
};

} // namespace ktr::test
