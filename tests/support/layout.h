// The private fields of classes whose layout is contract.
#pragma once

#include <cstddef>

namespace corvo::test {

// The field of type T at `offset` of an object.
template <class T>
const T& field(const void* object, std::size_t offset) {
    return *reinterpret_cast<const T*>(static_cast<const char*>(object) + offset);
}

}  // namespace corvo::test
