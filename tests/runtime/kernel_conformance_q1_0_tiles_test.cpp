// q1_0_128 rows tiled by sixteen: the portable tiled product of the tiled
// rows gives the bytes of the portable product of the plain rows, and every
// SIMD set gives the bytes of the portable one, over row counts around the
// tile and lane widths, one block to many, partial tail blocks, several
// tokens, extreme scales and activations.
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "conformance_support.h"
#include "kernel_test_inputs.h"
#include "product_test_inputs.h"
#include "runtime/formats/q1_0_tiles.h"

namespace quorvel::test {
namespace {

using formats::BlockQ1_0;
using formats::Q1_0TileBlock;

constexpr std::size_t kMargin = 3;

std::vector<Q1_0TileBlock> tiled(const std::vector<std::uint8_t>& plain, std::size_t rows, std::size_t k) {
  const std::size_t blocks = kQ1_0Layout.blocks_per_row(k);
  std::vector<BlockQ1_0> copy(rows * blocks);
  if (!plain.empty()) std::memcpy(copy.data(), plain.data(), plain.size());
  std::vector<Q1_0TileBlock> tiles(formats::q1_0_tile_count(rows) * blocks);
  formats::tile_q1_0_rows(copy.data(), rows, blocks, tiles.data());
  return tiles;
}

struct Case {
  std::size_t rows;
  std::size_t k;
  std::size_t tokens;
  bool extreme_scales = false;
  int code = 0;  // every activation code, or 0 for random codes
  // Rows 0, 3, 6, ... with every sign bit set, rows 1, 4, 7, ... with none:
  // with a uniform code, |S_b| reaches 128 * |code| in every block.
  bool uniform_sign_rows = false;

  std::string name() const {
    return "rows=" + std::to_string(rows) + " k=" + std::to_string(k) + " tokens=" + std::to_string(tokens) +
           (extreme_scales ? " extreme scales" : "") + (code != 0 ? " code=" + std::to_string(code) : "") +
           (uniform_sign_rows ? " uniform sign rows" : "");
  }
};

class Q1_0TileConformance : public KernelConformanceTest {
 protected:
  void check(const Case& c) {
    std::vector<std::uint8_t> plain = random_block_rows(kQ1_0Layout, c.rows, c.k, seed_++);
    if (c.extreme_scales) set_extreme_scales(plain);
    if (c.uniform_sign_rows) set_uniform_sign_rows(plain, c.rows);
    const std::vector<Q1_0TileBlock> tiles = tiled(plain, c.rows, c.k);
    KernelInputs inputs(seed_++);
    std::vector<std::int8_t> x = inputs.i8_row(c.tokens * c.k);
    if (c.code != 0) x.assign(x.size(), static_cast<std::int8_t>(c.code));
    const std::vector<float> scales = inputs.f32_row(c.tokens, 0.001f, 0.05f);
    const std::size_t stride = c.rows + kMargin;
    std::vector<bf16> from_rows = sentinel_buffer<bf16>(c.tokens * stride + 2 * kMargin);
    std::vector<bf16> from_tiles = from_rows, simd_tiles = from_rows;
    portable().gemm_q1_0(plain.data(), x.data(), scales.data(), from_rows.data() + kMargin, stride, c.tokens, c.rows,
                         c.k);
    portable().gemm_q1_0_tiles(tiles.data(), x.data(), scales.data(), from_tiles.data() + kMargin, stride, c.tokens,
                               c.rows, c.k);
    simd().gemm_q1_0_tiles(tiles.data(), x.data(), scales.data(), simd_tiles.data() + kMargin, stride, c.tokens,
                           c.rows, c.k);
    expect_identical(from_rows, from_tiles, "portable tiles against plain rows, " + c.name());
    expect_identical(from_tiles, simd_tiles, "gemm_q1_0_tiles " + c.name());
  }

  // Infinity, overflowing products, subnormals, zeros and the largest bf16
  // scales, spread over the rows and blocks, and one NaN scale.
  static void set_extreme_scales(std::vector<std::uint8_t>& plain) {
    const float extremes[] = {std::numeric_limits<float>::infinity(), 3.0e38f, -3.3895e38f, 1.0e-40f, 0.0f, -0.0f};
    std::size_t i = 0;
    for (std::size_t at = kQ1_0Layout.bytes; at < plain.size(); at += 5 * kQ1_0Layout.bytes, ++i) {
      kQ1_0Layout.set_scale(plain.data() + at, extremes[i % std::size(extremes)]);
    }
    kQ1_0Layout.set_scale(plain.data(), std::numeric_limits<float>::quiet_NaN());
  }

  static void set_uniform_sign_rows(std::vector<std::uint8_t>& plain, std::size_t rows) {
    const std::size_t row_bytes = plain.size() / rows;
    for (std::size_t r = 0; r < rows; ++r) {
      if (r % 3 == 2) continue;
      for (std::size_t at = r * row_bytes; at < (r + 1) * row_bytes; at += kQ1_0Layout.bytes) {
        std::memset(plain.data() + at, r % 3 == 0 ? 0xFF : 0x00, kQ1_0Layout.values / 8);
      }
    }
  }

  std::uint32_t seed_ = 11;
};

// Row counts around the 16-row tile and the 8- and 16-lane vectors.
TEST_P(Q1_0TileConformance, RowCountsAroundTheTile) {
  for (std::size_t rows : {0, 1, 2, 3, 7, 8, 9, 15, 16, 17, 24, 33, 48}) {
    for (std::size_t k : {128, 2048}) check({rows, k, 1});
  }
}

// One block, a partial block, a block and a tail, real layer widths, and
// rows longer than the SIMD sets prepare (they take the portable code).
TEST_P(Q1_0TileConformance, RowLengths) {
  for (std::size_t k : {128, 100, 200, 384, 2560, 6912, 8192, 8192 + 128, 16384, 16384 + 128}) check({19, k, 1});
}

// Passes of four, two and one token; at 2048 and 4096 codes the passes of
// four and of two are the widest whose sum tables the 256-bit sets keep.
TEST_P(Q1_0TileConformance, SeveralTokens) {
  for (std::size_t tokens : {2, 3, 5}) check({21, 640, tokens});
  for (std::size_t k : {2048, 2048 + 128, 4096, 4096 + 128}) check({21, k, 7});
}

TEST_P(Q1_0TileConformance, ExtremeScalesAndActivations) {
  check({37, 2048, 2, true});
  for (int code : {127, -127, -128}) check({17, 2048, 1, false, code});
}

// Block sums at the largest magnitudes the codes allow, in whole and
// partial blocks, for a lone token and for passes of four, two and one.
TEST_P(Q1_0TileConformance, BlockSumsAtTheirLimits) {
  for (int code : {-128, 127}) {
    for (std::size_t k : {2048, 200}) {
      for (std::size_t tokens : {1, 7}) check({20, k, tokens, false, code, true});
    }
  }
}

INSTANTIATE_KERNEL_CONFORMANCE(Q1_0TileConformance);

// The regrouped bits and scales: row r's weight i is bit 4r + i % 4 of
// sign word i / 4, its scale d[r]; rows past the end are empty.
TEST(Q1_0Tiles, RegroupsEveryRowsBitsAndScale) {
  const std::size_t rows = 18, k = 256, blocks = 2;
  std::vector<std::uint8_t> plain = random_block_rows(kQ1_0Layout, rows, k, 5);
  const std::vector<Q1_0TileBlock> tiles = tiled(plain, rows, k);
  ASSERT_EQ(tiles.size(), 2 * blocks);
  for (std::size_t r = 0; r < 2 * Q1_0TileBlock::kRows; ++r) {
    for (std::size_t b = 0; b < blocks; ++b) {
      const Q1_0TileBlock& tile = tiles[r / 16 * blocks + b];
      const std::size_t lane = r % 16;
      const std::uint8_t* block = plain.data() + (r * blocks + b) * kQ1_0Layout.bytes;
      EXPECT_EQ(tile.d[lane].bits, r < rows ? bf16{static_cast<std::uint16_t>(block[16] | block[17] << 8)}.bits : 0);
      for (std::size_t i = 0; i < 128; ++i) {
        const bool set = (tile.signs[i / 4] >> (4 * lane + i % 4)) & 1u;
        ASSERT_EQ(set, r < rows && q1_0_code(block, i) == 1) << "row " << r << " block " << b << " weight " << i;
      }
    }
  }
}

}  // namespace
}  // namespace quorvel::test
