// The architecture codes that the init config and the model file share.
#pragma once

#include <cstdint>

namespace quorvel {

enum class ArchType : std::int32_t {
  BITNET = 1,
  LLAMA = 2,
  QWEN3_5 = 3,
  BONSAI = 4,
  BONSAI_TERNARY = 5,
  QWEN3 = 6,
};

}  // namespace quorvel
