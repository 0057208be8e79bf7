#pragma once

#include <iostream>
#include <valgrind/callgrind.h>

namespace ktr::bench {

/// Runs `work`, which does so many operations, under callgrind's eyes, which are closed before and
/// afterwards, and prints their number. What all threads do meanwhile counts, so that whatever
/// `work` has others do must be over when it returns.
template <class Work>
void count(int operations, Work work) {
    CALLGRIND_START_INSTRUMENTATION;
    work();
    CALLGRIND_STOP_INSTRUMENTATION;
    std::cout << operations << std::endl;
}

} // namespace ktr::bench
