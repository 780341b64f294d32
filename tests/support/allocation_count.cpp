#include "support/allocation_count.h"

#include <cstdlib>
#include <new>
#include <utility>

// These replace the operators of every program that asks for the count, and of no other: the
// linker takes this file out of the library for the sake of its functions only. They are weak for
// the sanitizers' sake, whose own ones come first then and count nothing.

namespace {

thread_local uint64_t t_count = 0;
thread_local bool t_nextFails = false;

}  // namespace

uint64_t AllocationCount() {
    return t_count;
}

bool FailNextAllocation() {
    const uint64_t before = t_count;
    ::operator delete[](::operator new[](1));  // which a sanitizer may have for itself
    t_nextFails = t_count != before;
    return t_nextFails;
}

__attribute__((weak)) void* operator new(size_t size) {
    ++t_count;
    void* const memory = t_nextFails ? nullptr : std::malloc(size == 0 ? 1 : size);
    t_nextFails = false;
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}
__attribute__((weak)) void* operator new(size_t size, const std::nothrow_t& /*tag*/) noexcept {
    ++t_count;
    return std::exchange(t_nextFails, false) ? nullptr : std::malloc(size == 0 ? 1 : size);
}
__attribute__((weak)) void operator delete(void* memory) noexcept {
    std::free(memory);
}
__attribute__((weak)) void operator delete(void* memory, size_t) noexcept {
    std::free(memory);
}
