#include "Allocations.h"

#include <cstdlib>
#include <new>

namespace {

thread_local std::size_t count = 0;

} // namespace

namespace ktr::bench {

std::size_t allocationsOfThisThread() {
    return count;
}

} // namespace ktr::bench

// These take the place of the standard library's.

void* operator new(std::size_t size) {
    ++count;
    if (void* const memory = std::malloc(size))
        return memory;
    throw std::bad_alloc();
}

void operator delete(void* memory) noexcept {
    std::free(memory);
}

void operator delete(void* memory, std::size_t /*size*/) noexcept {
    std::free(memory);
}
