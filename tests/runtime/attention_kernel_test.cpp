// Causal attention of the portable set against the softmax computed in
// double, plus the cases where its blocked, two-exponential evaluation shows.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "runtime/bf16.h"
#include "runtime/kernel_test_inputs.h"
#include "runtime/scalar/portable_kernels.h"

namespace quorvel::kernels {
namespace {

using test::bf16_half_ulp;
using test::gamma_n;
using test::KernelInputs;

const PortableKernels kPortable;
constexpr std::uint16_t kUnwritten = 0x7FC1;  // a NaN no kernel result can be
constexpr std::size_t kScoreBlock = 64;

// One head's inputs with padded strides: keys position-major, values
// dimension-major (element (p, d) at v[d * v_stride + p]), as the cache keeps them.
struct AttentionCase {
  std::size_t n_q, kv_len, head_dim;
  std::size_t q_stride, k_stride, v_stride, out_stride;
  std::vector<bf16> q, k, v, out;
  std::vector<float> work;

  AttentionCase(std::size_t queries, std::size_t positions, std::size_t dim)
      : n_q(queries), kv_len(positions), head_dim(dim), q_stride(dim + 2), k_stride(dim + 3),
        v_stride(positions + 5), out_stride(dim + 4), q(queries * q_stride, bf16{0}), k(positions * k_stride, bf16{0}),
        v(dim * v_stride, bf16{0}), out(queries * out_stride, bf16{kUnwritten}), work(kScoreBlock + dim) {}

  void fill_random(KernelInputs& inputs, float qk_magnitude, float v_magnitude) {
    q = inputs.bf16_row(q.size(), qk_magnitude);
    k = inputs.bf16_row(k.size(), qk_magnitude);
    v = inputs.bf16_row(v.size(), v_magnitude);
  }
  bf16& query(std::size_t i, std::size_t d) { return q[i * q_stride + d]; }
  bf16& key(std::size_t p, std::size_t d) { return k[p * k_stride + d]; }
  bf16& value(std::size_t p, std::size_t d) { return v[d * v_stride + p]; }
  float result(std::size_t i, std::size_t d) const { return widen(out[i * out_stride + d]); }

  void run() {
    kPortable.attention_bf16(q.data(), q_stride, k.data(), k_stride, v.data(), v_stride, out.data(), out_stride, n_q,
                             kv_len, head_dim, work.data());
  }

  // Points key p along query row i so that its score is about `score`.
  void set_score(std::size_t i, std::size_t p, double score) {
    double norm_sq = 0;
    for (std::size_t d = 0; d < head_dim; ++d) norm_sq += static_cast<double>(widen(query(i, d))) * widen(query(i, d));
    const double factor = score * std::sqrt(static_cast<double>(head_dim)) / norm_sq;
    for (std::size_t d = 0; d < head_dim; ++d) key(p, d) = narrow_saturate(static_cast<float>(factor * widen(query(i, d))));
  }
};

// Checks query row i against the softmax in double. Each weight e_p is off
// relatively by the exponential's error, twice the score error (the score
// and the maximum), and the rounding of each block's correction; the sums
// over the visible positions add gamma(visible) each to numerator and
// denominator, and the quotient doubles the weight error.
void expect_row_matches_double(AttentionCase& c, std::size_t i) {
  const std::size_t visible = c.kv_len - c.n_q + i + 1;
  const double scale = 1 / std::sqrt(static_cast<double>(c.head_dim));
  std::vector<double> scores(visible);
  double score_error = 0;
  for (std::size_t p = 0; p < visible; ++p) {
    double dot = 0, magnitude = 0;
    for (std::size_t d = 0; d < c.head_dim; ++d) {
      const double product = static_cast<double>(widen(c.query(i, d))) * widen(c.key(p, d));
      dot += product;
      magnitude += std::fabs(product);
    }
    scores[p] = dot * scale;
    score_error = std::max(score_error, gamma_n(static_cast<double>(c.head_dim) / 4 + 3) * magnitude * scale +
                                            gamma_n(3) * std::fabs(scores[p]));
  }
  const double max_score = *std::max_element(scores.begin(), scores.end());
  const double min_score = *std::min_element(scores.begin(), scores.end());
  const double blocks = std::ceil(static_cast<double>(visible) / kScoreBlock);
  const double weight_error = test::poly_exp_error_bound() + 2 * score_error +
                              (blocks + 1) * (test::kUnitRoundoff * (max_score - min_score) + gamma_n(2));
  const double relative = 2 * (weight_error + gamma_n(static_cast<double>(visible) + 2));
  double sum = 0;
  for (double s : scores) sum += std::exp(s - max_score);
  for (std::size_t d = 0; d < c.head_dim; ++d) {
    double expected = 0, magnitude = 0;
    for (std::size_t p = 0; p < visible; ++p) {
      const double weight = std::exp(scores[p] - max_score) / sum;
      expected += weight * widen(c.value(p, d));
      magnitude += weight * std::fabs(widen(c.value(p, d)));
    }
    ASSERT_NEAR(c.result(i, d), expected, relative * magnitude + gamma_n(2) * std::fabs(expected) +
                                              bf16_half_ulp(expected))
        << "row " << i << " of " << c.n_q << ", kv_len " << c.kv_len << ", dim " << d;
  }
}

void expect_gaps_unwritten(const AttentionCase& c) {
  for (std::size_t i = 0; i < c.n_q; ++i) {
    for (std::size_t d = c.head_dim; d < c.out_stride; ++d) ASSERT_EQ(c.out[i * c.out_stride + d].bits, kUnwritten);
  }
}

// Several query rows (each with its own causal bound), a tail of fewer than
// four scores, several 64-position blocks, head sizes that are not powers of two.
TEST(Attention, MatchesSoftmaxInDouble) {
  struct Shape {
    std::size_t n_q, kv_len, head_dim;
  };
  KernelInputs inputs(41);
  for (const Shape shape : {Shape{1, 1, 8}, Shape{3, 5, 8}, Shape{4, 67, 20}, Shape{2, 130, 64}, Shape{5, 200, 12}}) {
    AttentionCase c(shape.n_q, shape.kv_len, shape.head_dim);
    c.fill_random(inputs, 2.0f, 3.0f);
    c.run();
    for (std::size_t i = 0; i < c.n_q; ++i) expect_row_matches_double(c, i);
    expect_gaps_unwritten(c);
  }
}

// The first block holds the largest score, so the later blocks' maxima do
// not rise (correction exp(0) = 1); then the maximum rises in the second
// and again in the last block (corrections below 1).
TEST(Attention, RunningMaximumAcrossBlocks) {
  KernelInputs inputs(42);
  for (bool rising : {false, true}) {
    AttentionCase c(1, 130, 16);
    c.fill_random(inputs, 0.5f, 3.0f);
    if (rising) {
      c.set_score(0, 70, 4.0);
      c.set_score(0, 129, 8.0);
    } else {
      c.set_score(0, 3, 8.0);
    }
    c.run();
    expect_row_matches_double(c, 0);
  }
}

TEST(Attention, FirstRowOfAFullPrefillCopiesTheFirstValueRow) {
  KernelInputs inputs(43);
  AttentionCase c(3, 3, 16);
  c.fill_random(inputs, 2.0f, 3.0f);
  c.run();
  for (std::size_t d = 0; d < c.head_dim; ++d) ASSERT_EQ(c.out[d].bits, c.value(0, d).bits) << d;
  for (std::size_t i = 1; i < c.n_q; ++i) expect_row_matches_double(c, i);
}

// Scores: position 0 scores 0, positions 1-4 score -200. Positions 0-3 are a
// group of four (polynomial exponential, clamped at -87), position 4 the
// tail (library exponential, which underflows to 0). Value dimension 0
// holds the largest bf16 at positions 1-3, dimension 1 at position 4.
TEST(Attention, FarScoresWeighExpMinus87InGroupsOfFourAndZeroInTheTail) {
  AttentionCase c(1, 5, 4);
  c.query(0, 0) = narrow_saturate(1.0f);
  for (std::size_t p = 1; p < 5; ++p) c.key(p, 0) = narrow_saturate(-400.0f);
  const bf16 largest{0x7F7F};
  for (std::size_t p = 1; p < 4; ++p) c.value(p, 0) = largest;
  c.value(4, 1) = largest;
  c.run();
  const double clamped = 3 * std::exp(-87.0) * widen(largest);
  const double relative = 2 * (test::poly_exp_error_bound() + gamma_n(8));
  EXPECT_NEAR(c.result(0, 0), clamped, relative * clamped + bf16_half_ulp(clamped));
  EXPECT_EQ(c.result(0, 1), 0.0f);
  EXPECT_EQ(c.result(0, 2), 0.0f);
}

// Only a caller error gives kv_len < n_q; rows that see no position are
// written as zeros and nothing is read before the cache.
TEST(Attention, RowsThatSeeNoPositionAreZero) {
  KernelInputs inputs(44);
  AttentionCase c(3, 1, 8);
  c.fill_random(inputs, 2.0f, 3.0f);
  c.run();
  for (std::size_t d = 0; d < c.head_dim; ++d) {
    ASSERT_EQ(c.result(0, d), 0.0f);
    ASSERT_EQ(c.result(1, d), 0.0f);
    ASSERT_EQ(c.out[2 * c.out_stride + d].bits, c.value(0, d).bits);
  }
}

}  // namespace
}  // namespace quorvel::kernels
