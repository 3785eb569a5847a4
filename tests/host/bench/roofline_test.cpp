#include "host/roofline.h"

#include <gtest/gtest.h>

namespace quorvel::host {
namespace {

// hidden 64, intermediate 96, 2 layers, 4 heads of 16 (q width 64), 2 kv
// heads (kv width 32), vocabulary 40.
InitConfig small_config(std::int32_t arch_type) {
  InitConfig c;
  c.arch_type = arch_type;
  c.hidden_dim = 64;
  c.intermediate_dim = 96;
  c.num_layers = 2;
  c.num_heads = 4;
  c.num_kv_heads = 2;
  c.head_dim = 16;
  c.vocab_size = 40;
  return c;
}

TEST(Roofline, LayerWeightsCountEveryProjection) {
  // q 64x64 + k, v 64x32 each + o 64x64 + gate, up, down 64x96 each.
  EXPECT_DOUBLE_EQ(layer_matrix_weights(small_config(1)), 4096 + 2 * 2048 + 4096 + 3 * 6144);
}

TEST(Roofline, TernaryWeightBytesAddTheInt8Head) {
  // 30720 weights x 2 layers at a quarter byte, plus 64 rows (40 padded to
  // 32s) of 64 int8 weights and a 4-byte scale.
  EXPECT_DOUBLE_EQ(weight_bytes_per_token(small_config(1)), 15360.0 + 64 * 68);
}

TEST(Roofline, OneBitModelsHaveAOneBitHead) {
  EXPECT_DOUBLE_EQ(weight_bytes_per_token(small_config(4)), 61440.0 * 18 / 128 + 64 * 64 * 18.0 / 128);
}

TEST(Roofline, Q8WeightsCost36BytesPer32) {
  EXPECT_DOUBLE_EQ(weight_bytes_per_token(small_config(6)), 61440.0 * 36 / 32 + 64 * 68);
  EXPECT_DOUBLE_EQ(weight_bytes_per_token(small_config(5)), 61440.0 * 34 / 128 + 64 * 68);
}

TEST(Roofline, KvCacheBytesGrowWithPositions) {
  // 2 layers x (k and v) x 2 heads x 16 x 2 bytes = 256 bytes a position.
  EXPECT_DOUBLE_EQ(kv_cache_bytes_per_token(small_config(1), 0), 0);
  EXPECT_DOUBLE_EQ(kv_cache_bytes_per_token(small_config(1), 100), 25600);
  EXPECT_DOUBLE_EQ(kv_cache_bytes_per_token(small_config(1), 10.5), 2688);
}

TEST(Roofline, DecodePositionsAverageTheTimedSteps) {
  // Steps attend 1024 + 8 + 1 .. 1024 + 8 + 4 positions.
  EXPECT_DOUBLE_EQ(mean_decode_positions(1024, 8, 4), 1034.5);
  EXPECT_DOUBLE_EQ(mean_decode_positions(0, 1, 1), 2);
}

TEST(Roofline, PrefillSharesOneUnembeddingAmongThePrompt) {
  // 2 layers x 30720 for every token, 40 x 64 once per prompt.
  EXPECT_DOUBLE_EQ(prefill_multiply_adds_per_token(small_config(1), 1), 61440 + 2560);
  EXPECT_DOUBLE_EQ(prefill_multiply_adds_per_token(small_config(1), 128), 61440 + 20);
}

}  // namespace
}  // namespace quorvel::host
