#include "layers/transpose_copy.h"

#include <algorithm>
#include <cstring>

#include "runtime/parallel_rows.h"

namespace quorvel::layers {
namespace {

void transpose_tile(const TransposeCopy& copy, std::uint64_t first_token, std::uint64_t first_dim) {
  const std::uint64_t tokens = std::min(kTransposeTileTokens, copy.tokens - first_token);
  const std::uint64_t dims = std::min(kTransposeTileDims, copy.dims - first_dim);
  bf16 tile[kTransposeTileTokens][kTransposeTileDims];
  for (std::uint64_t t = 0; t < tokens; ++t) {
    std::memcpy(tile[t], copy.src + (first_token + t) * copy.dims + first_dim, dims * sizeof(bf16));
  }
  for (std::uint64_t d = 0; d < dims; ++d) {
    bf16* run = copy.dst + (first_dim + d) * copy.dst_stride + first_token;
    for (std::uint64_t t = 0; t < tokens; ++t) run[t] = tile[t][d];
  }
}

}  // namespace

void transpose_dimension_tiles(const TransposeCopy& copy, std::uint64_t first_tile, std::uint64_t count) {
  for (std::uint64_t tile = first_tile; tile < first_tile + count; ++tile) {
    for (std::uint64_t token = 0; token < copy.tokens; token += kTransposeTileTokens) {
      transpose_tile(copy, token, tile * kTransposeTileDims);
    }
  }
}

void transpose_copy(const TransposeCopy& copy) {
  const std::uint64_t tiles = dimension_tiles(copy.dims);
  if (!transpose_copy_splits(copy.tokens, copy.dims)) {
    transpose_dimension_tiles(copy, 0, tiles);
    return;
  }
  parallel_rows(tiles, {}, [&](std::uint64_t first, std::uint64_t count) {
    transpose_dimension_tiles(copy, first, count);
  });
}

}  // namespace quorvel::layers
