#include "utils/alloc_counter.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {
std::atomic<size_t> gAllocations{0};
std::atomic<size_t> gBytes{0};

void* countedAlloc(std::size_t size) {
    ++gAllocations;
    gBytes += size;
    return std::malloc(size == 0 ? 1 : size);
}
}  // namespace

namespace sonel_test {
size_t allocationCount() { return gAllocations.load(); }
size_t allocatedBytes() { return gBytes.load(); }
}  // namespace sonel_test

void* operator new(std::size_t size) {
    if (void* p = countedAlloc(size)) return p;
    throw std::bad_alloc();
}
void* operator new[](std::size_t size) { return operator new(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return countedAlloc(size); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return countedAlloc(size);
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { std::free(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { std::free(p); }
