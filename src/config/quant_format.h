// The storage formats that the init config can name for LoRA factors and
// the unembedding table.
#pragma once

#include <cstdint>

namespace quorvel {

enum class QuantFormat : std::uint8_t {
  NONE = 0,  // "none" and "bf16": unquantized
  TERNARY = 1,  // no config text selects it
  INT8 = 2,
  Q4_0 = 3,
  Q5_0 = 4,
  Q6_K = 5,
  Q8_0 = 6,
};

}  // namespace quorvel
