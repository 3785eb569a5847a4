// The first 12 bytes of "qmodel.lora"; the rest of its header belongs to
// the adapter loader.
#pragma once

#include <cstdint>
#include <istream>

namespace quorvel {

inline constexpr std::uint32_t kLoraFileVersion = 4;

// Checks magic "QVLA" and the version, leaving the stream at offset 12
// (the rank). Writes its own message and returns false on failure.
bool check_lora_header(std::istream& in, std::uint32_t expected_version);

}  // namespace quorvel
