// Throughput loops of the int8 multiply-add instruction each kernel set's
// integer products are built on: many independent accumulators, so that the
// loop is bound by how many of these instructions the core issues per cycle,
// not by one accumulator's latency.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace quorvel::host {

struct Int8DotLoop {
  const char* instruction;    // e.g. "vpdpbusd zmm"
  std::size_t operand_bytes;  // int8 operands one round reads, one multiply-add each
  // Runs `rounds` rounds; each multiplies every byte of x (operand_bytes of
  // them, 64-byte aligned) by w and adds the products into the accumulators.
  // Returns the sum of all accumulator lanes (32-bit lanes that wrap).
  // Keep w <= 127 and |x| <= 64: no instruction saturates then.
  std::int64_t (*run)(const std::int8_t* x, std::uint8_t w, std::uint64_t rounds);
};

// The loop for a kernel set named as the runtime names it (kernel_sets.h):
// "avx512", "avx-vnni", "avx2", "neon-dotprod", "neon"; any other name, the portable
// set included, gets a plain C++ loop.
Int8DotLoop int8_dot_loop_for(std::string_view kernel_set);

}  // namespace quorvel::host
