#pragma once

#include <cstddef>

namespace ktr::bench {

/// How often the calling thread has allocated so far, in all libraries of the process. Programs
/// that ask compile in Allocations.cpp.
std::size_t allocationsOfThisThread();

} // namespace ktr::bench
