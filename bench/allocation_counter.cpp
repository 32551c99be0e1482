// The replaced global allocation functions behind bench::allocations().
#include "allocation_counter.hpp"

#include <cstdlib>
#include <new>

namespace {

std::size_t count = 0;

void* counted_alloc(std::size_t size) {
    ++count;
    if (void* p = std::malloc(size == 0 ? 1 : size))
        return p;
    throw std::bad_alloc();
}

void* counted_aligned_alloc(std::size_t size, std::align_val_t align) {
    ++count;
    auto const alignment = static_cast<std::size_t>(align);
    std::size_t const rounded = (size + alignment - 1) / alignment * alignment;
    if (void* p = std::aligned_alloc(alignment, rounded == 0 ? alignment : rounded))
        return p;
    throw std::bad_alloc();
}

}  // namespace

std::size_t bench::allocations() {
    return count;
}

void* operator new(std::size_t size) {
    return counted_alloc(size);
}
void* operator new[](std::size_t size) {
    return counted_alloc(size);
}
void* operator new(std::size_t size, std::align_val_t align) {
    return counted_aligned_alloc(size, align);
}
void* operator new[](std::size_t size, std::align_val_t align) {
    return counted_aligned_alloc(size, align);
}
void operator delete(void* p) noexcept {
    std::free(p);
}
void operator delete[](void* p) noexcept {
    std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
    std::free(p);
}
void operator delete[](void* p, std::size_t) noexcept {
    std::free(p);
}
void operator delete(void* p, std::align_val_t) noexcept {
    std::free(p);
}
void operator delete[](void* p, std::align_val_t) noexcept {
    std::free(p);
}
void operator delete(void* p, std::size_t, std::align_val_t) noexcept {
    std::free(p);
}
void operator delete[](void* p, std::size_t, std::align_val_t) noexcept {
    std::free(p);
}
