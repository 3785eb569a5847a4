// How much memory the machine has, for start-up's check that a model fits.
#pragma once

#include <cstdint>

namespace quorvel {

// The machine's physical memory in bytes, or kSizeOverflow (no limit known)
// when the platform does not say.
std::uint64_t physical_memory_bytes();

}  // namespace quorvel
