#include "unit/logging/malloc_count.h"

#include <cstdlib>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define TARN_OWN_ALLOCATOR 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define TARN_OWN_ALLOCATOR 1
#endif
#endif

namespace {

thread_local uint64_t t_count = 0;

}  // namespace

uint64_t MallocCount() {
    return t_count;
}

bool MallocIsCounted() {
    const uint64_t before = t_count;
    void* volatile memory = std::malloc(1);
    std::free(memory);
    return t_count != before;
}

#ifndef TARN_OWN_ALLOCATOR

extern "C" {

void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* memory, size_t size);

void* malloc(size_t size) {
    ++t_count;
    return __libc_malloc(size);
}

void* calloc(size_t count, size_t size) {
    ++t_count;
    return __libc_calloc(count, size);
}

void* realloc(void* memory, size_t size) {
    ++t_count;
    return __libc_realloc(memory, size);
}
}

#endif
