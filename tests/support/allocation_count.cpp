#include "allocation_count.h"

#include <cstdlib>
#include <new>

// These replace the operators of every program that asks for the count, and of no other: the
// linker takes this file out of the library for the sake of AllocationCount only. They are weak for
// the sanitizers' sake, whose own ones come first then and count nothing.

namespace {
thread_local std::uint64_t s_count = 0;
}

std::uint64_t AllocationCount() {
    return s_count;
}

__attribute__((weak)) void* operator new(std::size_t size) {
    ++s_count;
    if (void* const memory = std::malloc(size == 0 ? 1 : size)) {
        return memory;
    }
    throw std::bad_alloc();
}
__attribute__((weak)) void operator delete(void* memory) noexcept {
    std::free(memory);
}
__attribute__((weak)) void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}
