// The value cache is dimension-major (one row per output dimension, one
// column per position), while projections produce token rows. Appending
// several tokens transposes them in tiles of 16 tokens x 32 dimensions: a
// tile is gathered row by row into a local buffer, then each dimension's 16
// values go out as one contiguous run of its cache row.
#pragma once

#include <cstdint>

#include "runtime/bf16.h"

namespace quorvel::layers {

inline constexpr std::uint64_t kTransposeTileTokens = 16;
inline constexpr std::uint64_t kTransposeTileDims = 32;

struct TransposeCopy {
  const bf16* src;            // `tokens` rows of `dims` values
  std::uint64_t tokens;
  std::uint64_t dims;
  bf16* dst;                  // where token 0 of dimension 0 goes
  std::uint64_t dst_stride;   // distance between two dimensions' rows
};

inline std::uint64_t dimension_tiles(std::uint64_t dims) {
  return (dims + kTransposeTileDims - 1) / kTransposeTileDims;
}

// Whether the copy is large enough, and has more than one dimension tile, to
// be spread over the pool (a caller inside a job still runs it serially).
inline bool transpose_copy_splits(std::uint64_t tokens, std::uint64_t dims) {
  return tokens * dims >= 4096 && dims + 31 >= 64;
}

// Copies dimension tiles [first_tile, first_tile + count), all tokens.
void transpose_dimension_tiles(const TransposeCopy& copy, std::uint64_t first_tile, std::uint64_t count);

// The whole copy: over the pool by dimension tiles when it splits and the
// caller is not inside a job, else serially. The result is the same.
void transpose_copy(const TransposeCopy& copy);

}  // namespace quorvel::layers
