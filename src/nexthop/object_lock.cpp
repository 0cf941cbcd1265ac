#include "nexthop/object_lock.h"

#include <array>
#include <cstdint>

namespace corvo {

std::mutex& object_lock(const void* object, Guards what) {
    // Never destroyed in effect: a std::mutex has nothing to destroy, and the globals outlive main().
    static constinit std::array<std::array<std::mutex, 16>, 2> locks{};
    const auto slot = (reinterpret_cast<std::uintptr_t>(object) >> 4) % 16;
    return locks[what == Guards::kLifecycle ? 0 : 1][slot];
}

}  // namespace corvo
