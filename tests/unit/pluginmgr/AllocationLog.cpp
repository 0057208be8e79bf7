#include "AllocationLog.h"

#include <cstdlib>
#include <new>

namespace {

thread_local ktr::test::AllocationLog* current = nullptr;

} // namespace

namespace ktr::test {

AllocationLog::AllocationLog() {
    current = this;
}

AllocationLog::~AllocationLog() {
    current = nullptr;
}

} // namespace ktr::test

// These take the place of the standard library's.

void* operator new(std::size_t size) {
    if (auto* const log = current) {
        current = nullptr; // the list allocates, too
        log->sizes.push_back(size);
        current = log;
    }
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
