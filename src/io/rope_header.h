// The header of "rope.cache", the precomputed cosine and sine tables.
#pragma once

#include <cstdint>
#include <istream>

namespace quorvel {

inline constexpr std::uint32_t kRopeCacheVersion = 4;

// Checks magic "QVRC" and the version, leaving the stream at the cosine
// table (offset 12). Writes its own message and returns false on failure.
bool check_rope_header(std::istream& in, std::uint32_t expected_version);

}  // namespace quorvel
