// Locks for objects whose layout is fixed and has no room for one.
//
// Who may include this: nexthop.
#pragma once

#include <mutex>

namespace corvo {

// What a lock of an object guards.
enum class Guards {
    kLifecycle,  // starting and stopping its worker; held across the join, so the worker never takes it
    kData,       // its other fields; held for moments only, the innermost of the two
};

// The lock of `object`. A few objects may share one.
std::mutex& object_lock(const void* object, Guards what);

}  // namespace corvo
