#include "FailingAllocation.h"

#include <cstdlib>
#include <new>

namespace {

// negative: none fails
thread_local int allocationsLeft = -1;

} // namespace

namespace ktr::test {

FailingAllocation::FailingAllocation(int successes) {
    allocationsLeft = successes;
}

FailingAllocation::~FailingAllocation() {
    allocationsLeft = -1;
}

} // namespace ktr::test

// The program's own, in a file of their own: where the compiler can look into one of the pair and
// not the other it takes them for mismatched.
void* operator new(std::size_t size) {
    if (allocationsLeft >= 0 && allocationsLeft-- == 0)
        throw std::bad_alloc();
    if (void* const memory = std::malloc(size == 0 ? 1 : size))
        return memory;
    throw std::bad_alloc();
}

void operator delete(void* memory) noexcept {
    std::free(memory);
}

void operator delete(void* memory, std::size_t /*size*/) noexcept {
    std::free(memory);
}
