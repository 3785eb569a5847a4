// The LoRA correction at the end of a linear layer's forward, for every
// factor storage and every weight format: out = bare output + x * A * B,
// computed here independently of the kernels.
//
// Two kinds of factors: values that the storage holds without error (whole
// multiples of a power-of-two step per block), for which every format must
// give the bf16 result bit for bit, so that a misplaced block, row or tail
// shows; and arbitrary values, which must stay within the error that the
// quantizers' rules allow each value in its own block.
#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "layer_test_support.h"
#include "layers/auto_bit_linear.h"
#include "layers/auto_q8_0_linear.h"
#include "layers/kv_cache_linear.h"
#include "layers/auto_q1_linear.h"
#include "layers/packed_block_linear.h"

namespace quorvel::layers {
namespace {

using quorvel::testing::binary_stream;
using quorvel::testing::ByteWriter;
using quorvel::testing::random_bf16;
using quorvel::testing::random_codes;
using quorvel::testing::random_scales;
using quorvel::testing::same_bits;

constexpr std::uint64_t kIn = 256;
constexpr std::uint64_t kOut = 384;  // 12 blocks of 32; a q6_k super-block and a half
constexpr std::uint64_t kRank = 40;  // one block of 32 and a tail of 8

enum class Weights { TERNARY, Q1_0, Q1_58, Q8_0 };

// Ternary codes 0..2 (never the unused 3), four to a byte.
std::uint8_t ternary_byte(std::mt19937& rng) {
  std::uniform_int_distribution<unsigned> code(0, 2);
  return static_cast<std::uint8_t>(code(rng) << 6 | code(rng) << 4 | code(rng) << 2 | code(rng));
}

// `blocks` blocks of `code_bytes` code bytes and a bf16 scale.
void write_blocks(ByteWriter& w, std::mt19937& rng, std::uint64_t blocks, int code_bytes, bool ternary) {
  std::uniform_int_distribution<int> byte(0, 255);
  for (std::uint64_t b = 0; b < blocks; ++b) {
    for (int i = 0; i < code_bytes; ++i) w.u8(ternary ? ternary_byte(rng) : static_cast<std::uint8_t>(byte(rng)));
    w.u16(narrow_saturate(0.02f).bits);
  }
}

std::unique_ptr<AutoLinear> load_linear(Weights weights, std::mt19937& rng, QuantFormat lora_format) {
  ByteWriter w;
  if (weights == Weights::TERNARY) {
    w.u64(std::bit_cast<std::uint64_t>(0.05));
    for (std::uint64_t i = 0; i < kIn * kOut / 4; ++i) w.u8(ternary_byte(rng));
  } else if (weights == Weights::Q8_0) {
    quorvel::testing::write_bf16(w, random_bf16(rng, kIn * kOut, -0.1f, 0.1f));
  } else {
    write_blocks(w, rng, kOut * kIn / 128, weights == Weights::Q1_0 ? 16 : 32, weights == Weights::Q1_58);
  }
  auto stream = binary_stream(w.bytes());
  switch (weights) {
    case Weights::TERNARY: return std::make_unique<AutoBitLinear>(stream, kIn, kOut, 1, false, lora_format);
    case Weights::Q1_0: return std::make_unique<AutoQ1Linear>(stream, kIn, kOut, 1, false, lora_format);
    case Weights::Q1_58: return std::make_unique<AutoQ1_58Linear>(stream, kIn, kOut, 1, false, lora_format);
    case Weights::Q8_0: break;
  }
  return std::make_unique<AutoQ8_0Linear>(stream, kIn, kOut, 1, false, lora_format);
}

// Every value of a factor shares its scale with the values of its block
// (the whole row for int8, a 16-value sub-block for q6_k); an anchor code pins
// that scale to a power of two and the other codes lie in [-largest, largest].
struct Grid {
  std::uint64_t block;
  int anchor;
  int largest;
};

Grid grid_of(QuantFormat format, std::uint64_t cols) {
  switch (format) {
    case QuantFormat::Q4_0: return {32, -8, 7};
    case QuantFormat::Q5_0: return {32, -16, 15};
    case QuantFormat::Q6_K: return {16, -32, 31};
    case QuantFormat::Q8_0: return {32, 127, 126};
    default: return {cols, 127, 126};
  }
}

// The exponent of a block: it changes from block to block and row to row,
// over a span of 2^4 (q6_k's sub-block scales reach 2^7).
int block_exponent(std::uint64_t row, std::uint64_t block) { return static_cast<int>((row + 2 * block) % 5); }

// Values code * 2^e that `format` stores without any error, the anchors
// near 2^top_exponent.
std::vector<bf16> representable_factor(QuantFormat format, std::mt19937& rng, std::uint64_t rows,
                                       std::uint64_t cols, int top_exponent) {
  const Grid grid = grid_of(format, cols);
  const int base = top_exponent - std::ilogb(grid.anchor) - 4;
  std::uniform_int_distribution<int> code(-grid.largest, grid.largest);
  std::vector<bf16> values(rows * cols);
  for (std::uint64_t r = 0; r < rows; ++r) {
    for (std::uint64_t c = 0; c < cols; ++c) {
      const int k = c % grid.block == 0 ? grid.anchor : code(rng);
      const int exponent = base + block_exponent(r, c / grid.block);
      values[r * cols + c] = narrow_saturate(std::ldexp(static_cast<float>(k), exponent));
    }
  }
  return values;
}

// Arbitrary values of magnitude up to 2^-2 .. 2^2 times `unit` (by block of
// 32 and row) with the sign row_sign[r] * col_sign[c]. Signs chosen so
// that x * A * B has no cancellation make the worst-case bound comparable
// to the correction itself.
std::vector<bf16> signed_factor(std::mt19937& rng, const std::vector<int>& row_sign, const std::vector<int>& col_sign,
                                float unit) {
  std::uniform_real_distribution<float> u(0.0f, 1.0f);
  std::vector<bf16> values;
  for (std::uint64_t r = 0; r < row_sign.size(); ++r) {
    for (std::uint64_t c = 0; c < col_sign.size(); ++c) {
      const float magnitude = std::ldexp(u(rng) * unit, block_exponent(r, c / 32) - 2);
      values.push_back(narrow_saturate(static_cast<float>(row_sign[r] * col_sign[c]) * magnitude));
    }
  }
  return values;
}

std::vector<int> random_signs(std::mt19937& rng, std::uint64_t n) {
  std::vector<int> signs(n);
  for (int& s : signs) s = rng() % 2 == 0 ? 1 : -1;
  return signs;
}

struct Adapter {
  std::vector<bf16> a;  // kIn x kRank
  std::vector<bf16> b;  // kRank x kOut
};

void attach(AutoLinear& layer, const Adapter& adapter) {
  ByteWriter w;
  w.u8(1);
  quorvel::testing::write_bf16(w, adapter.a);
  quorvel::testing::write_bf16(w, adapter.b);
  auto stream = binary_stream(w.bytes());
  layer.load_lora(stream, kRank);
  ASSERT_TRUE(layer.has_lora());
}

double magnitude(bf16 v) { return std::fabs(static_cast<double>(widen(v))); }

// q4_0 and q5_0 have 2 * half levels from -m to (half - 1) / half * m: half a
// step, or the clamp of an opposite-sign value beyond the last level.
double offset_code_error(double m, double v, double half) {
  return std::max(m / (2 * half), v - (half - 1) * m / half);
}

// The largest error that quantizing each value of one row of a factor may
// make, from the quantizers' documented rules, with a little room for the
// f32 rounding of the scales.
std::vector<double> quantization_errors(QuantFormat format, const bf16* row, std::uint64_t cols) {
  std::vector<double> errors(cols, 0.0);
  if (format == QuantFormat::NONE) return errors;
  const auto amax = [&](std::uint64_t first, std::uint64_t count) {
    double m = 0.0;
    for (std::uint64_t c = first; c < first + count && c < cols; ++c) m = std::max(m, magnitude(row[c]));
    return m;
  };
  const std::uint64_t block = format == QuantFormat::Q6_K ? 256 : format == QuantFormat::INT8 ? cols : 32;
  for (std::uint64_t c = 0; c < cols; ++c) {
    const double m = amax(c - c % block, block);
    const double v = magnitude(row[c]);
    double error = m / 254.0;  // int8 and q8_0: half a step of m / 127
    if (format == QuantFormat::Q4_0) error = offset_code_error(m, v, 8);
    if (format == QuantFormat::Q5_0) error = offset_code_error(m, v, 16);
    if (format == QuantFormat::Q6_K) error = amax(c - c % 16, 16) / 32.0 + 33.0 * m / 4096.0;
    errors[c] = error + m * 0x1p-20;
  }
  return errors;
}

std::vector<double> factor_errors(QuantFormat format, const std::vector<bf16>& values, std::uint64_t rows,
                                  std::uint64_t cols) {
  std::vector<double> errors;
  for (std::uint64_t r = 0; r < rows; ++r) {
    const std::vector<double> row = quantization_errors(format, values.data() + r * cols, cols);
    errors.insert(errors.end(), row.begin(), row.end());
  }
  return errors;
}

// For bf16 factors the exact result: the kernel contract's order, in f32.
std::vector<bf16> exact_outputs(const std::vector<bf16>& bare, const std::vector<bf16>& x, const Adapter& f,
                                std::uint64_t n) {
  std::vector<bf16> out(bare);
  for (std::uint64_t t = 0; t < n; ++t) {
    std::vector<float> h(kRank, 0.0f);
    for (std::uint64_t i = 0; i < kIn; ++i) {
      for (std::uint64_t r = 0; r < kRank; ++r) h[r] = h[r] + widen(x[t * kIn + i]) * widen(f.a[i * kRank + r]);
    }
    for (std::uint64_t j = 0; j < kOut; ++j) {
      float y = 0.0f;
      for (std::uint64_t r = 0; r < kRank; ++r) y = y + h[r] * widen(f.b[r * kOut + j]);
      out[t * kOut + j] = narrow_saturate(widen(out[t * kOut + j]) + y);
    }
  }
  return out;
}

// Checks every output against bare + x * A * B (in double) within the
// propagated quantization errors of A and B, the f32 sums and the final
// bf16 rounding. Returns the mean bound over the mean correction, so that a
// caller can see that the bound is far below what it bounds.
double expect_within_bounds(QuantFormat format, const std::vector<bf16>& corrected, const std::vector<bf16>& bare,
                            const std::vector<bf16>& x, const Adapter& f, std::uint64_t n) {
  const std::vector<double> error_a = factor_errors(format, f.a, kIn, kRank);
  const std::vector<double> error_b = factor_errors(format, f.b, kRank, kOut);
  const double sum_slack = static_cast<double>(kIn + kRank) * 0x1p-23;
  double total_bound = 0.0, total_correction = 0.0;
  for (std::uint64_t t = 0; t < n; ++t) {
    std::vector<double> h(kRank, 0.0), h_error(kRank, 0.0), h_size(kRank, 0.0);
    for (std::uint64_t i = 0; i < kIn; ++i) {
      const double xi = widen(x[t * kIn + i]);
      for (std::uint64_t r = 0; r < kRank; ++r) {
        h[r] += xi * widen(f.a[i * kRank + r]);
        h_error[r] += std::fabs(xi) * error_a[i * kRank + r];
        h_size[r] += std::fabs(xi) * (magnitude(f.a[i * kRank + r]) + error_a[i * kRank + r]);
      }
    }
    for (std::uint64_t j = 0; j < kOut; ++j) {
      double y = 0.0, bound = 0.0, size = 0.0;
      for (std::uint64_t r = 0; r < kRank; ++r) {
        const double b = widen(f.b[r * kOut + j]);
        const double b_error = error_b[r * kOut + j];
        y += h[r] * b;
        bound += h_error[r] * (std::fabs(b) + b_error) + std::fabs(h[r]) * b_error;
        size += h_size[r] * (std::fabs(b) + b_error);
      }
      bound += size * sum_slack;
      const double expected = static_cast<double>(widen(bare[t * kOut + j])) + y;
      bound += (std::fabs(expected) + bound) * 0x1p-8;  // the narrowing to bf16
      const double got = widen(corrected[t * kOut + j]);
      if (std::fabs(got - expected) > bound) {
        ADD_FAILURE() << "token " << t << ", column " << j << ": " << got << " vs " << expected << " +- " << bound;
        return HUGE_VAL;
      }
      total_bound += bound;
      total_correction += std::fabs(y);
    }
  }
  return total_bound / total_correction;
}

class LoraCorrection : public ::testing::TestWithParam<std::tuple<Weights, QuantFormat>> {
 protected:
  Weights weights() const { return std::get<0>(GetParam()); }
  QuantFormat format() const { return std::get<1>(GetParam()); }

  // The layer's output for n random tokens without and with the adapter.
  // The corrected output must be the same bits when one thread computes it
  // inside a job as when the pool's two workers share it with their own
  // scratch slices.
  struct Outputs {
    std::vector<bf16> bare;
    std::vector<bf16> corrected;
  };
  Outputs run(AutoLinear& layer, const std::vector<bf16>& x, std::uint64_t n) {
    const std::vector<std::int8_t> codes = random_codes(rng, n * kIn);
    const std::vector<float> scales = random_scales(rng, n);
    Outputs o{std::vector<bf16>(n * kOut), std::vector<bf16>(n * kOut)};
    std::vector<bf16> one_thread(n * kOut);
    layer.forward(codes.data(), scales.data(), n, o.bare.data(), nullptr);  // no input rows: no correction
    layer.forward(codes.data(), scales.data(), n, o.corrected.data(), x.data());
    quorvel::testing::run_inside_job(
        [&] { layer.forward(codes.data(), scales.data(), n, one_thread.data(), x.data()); });
    EXPECT_TRUE(same_bits(o.corrected, one_thread)) << n << " tokens, one thread";
    return o;
  }

  std::mt19937 rng{4099};
};

// Factors that the storage holds without error must give exactly the bf16
// arithmetic: any misplaced block, row or tail changes the result. The token
// counts give the two workers one share each, uneven shares and one token.
TEST_P(LoraCorrection, FactorsHeldExactlyGiveTheExactResult) {
  ASSERT_EQ(ThreadPool::instance().threads(), 2u);
  auto layer = load_linear(weights(), rng, format());
  const Adapter factors{representable_factor(format(), rng, kIn, kRank, -4),
                        representable_factor(format(), rng, kRank, kOut, -1)};
  attach(*layer, factors);
  for (std::uint64_t n : {1u, 2u, 7u}) {
    const std::vector<bf16> x = random_bf16(rng, n * kIn, -1.0f, 1.0f);
    const Outputs o = run(*layer, x, n);
    EXPECT_FALSE(same_bits(o.corrected, o.bare));
    EXPECT_TRUE(same_bits(o.corrected, exact_outputs(o.bare, x, factors, n))) << n << " tokens";
  }
}

// Arbitrary factors: within the quantization error, and that error bound
// stays below the correction, so a missing or misplaced correction fails.
TEST_P(LoraCorrection, ArbitraryFactorsStayWithinTheQuantizationError) {
  auto layer = load_linear(weights(), rng, format());
  const std::vector<int> rank_signs = random_signs(rng, kRank);
  const Adapter factors{signed_factor(rng, std::vector<int>(kIn, 1), rank_signs, 0.02f),
                        signed_factor(rng, rank_signs, random_signs(rng, kOut), 0.5f)};
  attach(*layer, factors);
  for (std::uint64_t n : {1u, 6u}) {
    const std::vector<bf16> x = random_bf16(rng, n * kIn, 0.0f, 1.0f);
    const Outputs o = run(*layer, x, n);
    EXPECT_LT(expect_within_bounds(format(), o.corrected, o.bare, x, factors, n), 0.5) << n << " tokens";
  }
}

// Every storage at least once, every weight format under more than one.
INSTANTIATE_TEST_SUITE_P(EveryStorage, LoraCorrection,
                         ::testing::Values(std::make_tuple(Weights::TERNARY, QuantFormat::NONE),
                                           std::make_tuple(Weights::Q1_0, QuantFormat::NONE),
                                           std::make_tuple(Weights::Q1_58, QuantFormat::NONE),
                                           std::make_tuple(Weights::Q8_0, QuantFormat::NONE),
                                           std::make_tuple(Weights::Q8_0, QuantFormat::INT8),
                                           std::make_tuple(Weights::TERNARY, QuantFormat::INT8),
                                           std::make_tuple(Weights::TERNARY, QuantFormat::Q4_0),
                                           std::make_tuple(Weights::Q1_0, QuantFormat::Q5_0),
                                           std::make_tuple(Weights::Q1_58, QuantFormat::Q6_K),
                                           std::make_tuple(Weights::Q8_0, QuantFormat::Q8_0)));

// The key and value variants correct before they append: the cache holds
// the corrected rows (keys) and columns (values), and the value layer's
// `out` too.
TEST(LoraCacheVariants, CorrectedRowsAreWhatEntersTheCaches) {
  std::mt19937 rng(77);
  constexpr std::uint64_t kContext = 8, n = 3, position = 2;
  ByteWriter w;
  quorvel::testing::write_bf16(w, random_bf16(rng, kIn * kOut, -0.1f, 0.1f));
  auto stream_for = [&] { return binary_stream(w.bytes()); };
  auto s1 = stream_for(), s2 = stream_for(), s3 = stream_for();
  AutoQ8_0Linear plain(s1, kIn, kOut, 1, false, QuantFormat::Q8_0);
  KQ8_0Linear key(s2, kIn, kOut, 1, false, kContext, QuantFormat::Q8_0);
  VQ8_0Linear value(s3, kIn, kOut, 1, false, kContext, QuantFormat::Q8_0);
  const Adapter factors{random_bf16(rng, kIn * kRank, -0.05f, 0.05f), random_bf16(rng, kRank * kOut)};
  for (AutoLinear* layer : {static_cast<AutoLinear*>(&plain), static_cast<AutoLinear*>(&key),
                            static_cast<AutoLinear*>(&value)}) {
    attach(*layer, factors);
  }
  const std::vector<std::int8_t> codes = random_codes(rng, n * kIn);
  const std::vector<float> scales = random_scales(rng, n);
  const std::vector<bf16> x = random_bf16(rng, n * kIn, -1.0f, 1.0f);
  std::vector<bf16> bare(n * kOut), corrected(n * kOut), value_out(n * kOut);
  plain.forward(codes.data(), scales.data(), n, bare.data(), nullptr);
  plain.forward(codes.data(), scales.data(), n, corrected.data(), x.data());
  ASSERT_FALSE(same_bits(bare, corrected));

  key.set_cache_pos(position);
  value.set_cache_pos(position);
  key.forward(codes.data(), scales.data(), n, nullptr, x.data());
  value.forward(codes.data(), scales.data(), n, value_out.data(), x.data());
  EXPECT_TRUE(same_bits(value_out, corrected));
  std::vector<bf16> keys(n * kOut), values(n * kOut);
  for (std::uint64_t t = 0; t < n; ++t) {
    for (std::uint64_t d = 0; d < kOut; ++d) {
      keys[t * kOut + d] = key.cache()[(position + t) * kOut + d];
      values[t * kOut + d] = value.cache()[d * kContext + position + t];
    }
  }
  EXPECT_TRUE(same_bits(keys, corrected));
  EXPECT_TRUE(same_bits(values, corrected));
}

}  // namespace
}  // namespace quorvel::layers
