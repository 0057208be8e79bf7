#pragma once

namespace ktr::test {

/// While it lives, one allocation of this thread fails with std::bad_alloc, once: the one after
/// `successes` that succeed. For programs that compile FailingAllocation.cpp in.
class FailingAllocation {
public:
    explicit FailingAllocation(int successes);
    ~FailingAllocation();
    FailingAllocation(const FailingAllocation&) = delete;
    FailingAllocation& operator=(const FailingAllocation&) = delete;
};

} // namespace ktr::test
