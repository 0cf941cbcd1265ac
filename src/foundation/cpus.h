// Masks of the processors, as the queues of a device take them.
//
// Who may include this: the foundation, and its tests.
#pragma once

#include <cstdint>

namespace corvo {

// One bit per processor, by the low five bits of the number: 32 processors give 0, which the kernel reads as
// "no steering". Devices with 32 processors are delivered that way.
constexpr std::uint32_t cpu_mask(int processors) {
    return (1U << (static_cast<unsigned>(processors) & 31U)) - 1U;
}

}  // namespace corvo
