#include "support/replaced_new.h"

#include <cstdlib>
#include <new>

namespace {

void* allocate(std::size_t size) noexcept {
    return corvo::test::new_fails() ? nullptr : std::malloc(size != 0 ? size : 1);
}

void* allocate_or_throw(std::size_t size) {
    if (void* memory = allocate(size)) return memory;
    throw std::bad_alloc();
}

}  // namespace

void* operator new(std::size_t size) {
    return allocate_or_throw(size);
}
void* operator new[](std::size_t size) {
    return allocate_or_throw(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return allocate(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return allocate(size);
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete[](void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, std::size_t) noexcept {
    std::free(memory);
}
void operator delete(void* memory, const std::nothrow_t&) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, const std::nothrow_t&) noexcept {
    std::free(memory);
}
