#include "support/failing_new.h"

#include <cstdlib>
#include <new>

namespace {

thread_local int left = -1;  // -1: memory is there
thread_local bool recovers = false;
thread_local bool refused = false;

void* allocate(std::size_t size) noexcept {
    if (left == 0) {
        refused = true;
        if (recovers) left = -1;
        return nullptr;
    }
    if (left > 0) --left;
    return std::malloc(size ? size : 1);
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

namespace corvo::test {

FailingNew::FailingNew(int count, Then then) {
    refused = false;
    recovers = then == Then::kRecovers;
    left = count;
}
FailingNew::~FailingNew() {
    left = -1;
}
bool FailingNew::struck() const {
    return refused;
}

}  // namespace corvo::test
