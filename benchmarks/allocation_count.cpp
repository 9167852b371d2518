// Definitions in the program come before the C library's, for shared libraries too. The C++
// library's operator new calls malloc, so these three see every allocation but the aligned ones.
#include "allocation_count.h"

#include <atomic>
#include <cstddef>
#include <cstdlib>

// The C library's own allocator under its other names.
extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *block, size_t size);
}

namespace {

std::atomic<uint64_t> count{0};

} // namespace

uint64_t allocation_count() {
    return count.load(std::memory_order_relaxed);
}

// Default visibility: otherwise only this program's own calls would come here.
__attribute__((visibility("default"))) void *malloc(size_t size) {
    count.fetch_add(1, std::memory_order_relaxed);
    return __libc_malloc(size);
}

__attribute__((visibility("default"))) void *calloc(size_t n, size_t size) {
    count.fetch_add(1, std::memory_order_relaxed);
    return __libc_calloc(n, size);
}

__attribute__((visibility("default"))) void *realloc(void *block, size_t size) {
    count.fetch_add(1, std::memory_order_relaxed);
    return __libc_realloc(block, size);
}
