// The several-token q8_0 product on AVX-512 VNNI, by transposed block
// columns. For each block column the codes of sixteen rows (16 x 32 bytes)
// are transposed once into eight vectors whose lane r holds row r's codes
// 4j .. 4j + 3; each token then takes eight VPDPBUSD against its own four
// activations broadcast, and the lanes come out as the sixteen rows' exact
// block sums with no reduction. The transpose is shared by every token of the
// pass, so this beats the reducing block engine once a call has several tokens.
// The float steps per lane are the portable ones: acc = acc + d_b * (float)S_b.
// It is the AVX-512 trait's transposed_q8_0_gemm, which q8_0_products.h
// takes for gemm_q8_0 where the trait has one.
#include <cstring>

#include "runtime/formats/q8_0.h"
#include "runtime/x86/avx512_isa.h"
#include "runtime/x86/intrinsics.h"
#include "runtime/x86/lane_passes.h"
#include "runtime/x86/pass_prefetch.h"
#include "runtime/x86/prepared_activations.h"

namespace quorvel::kernels::x86 {
namespace {

using formats::BlockQ8_0;
constexpr std::size_t kBlockBytes = sizeof(BlockQ8_0);
using avx512::Isa;
constexpr std::size_t kRows = Isa::kLanes;

// After the transpose lane l holds row kLaneRow[l] (rows 0-3, 8-11, 4-7, 12-15).
constexpr int kLaneRow[kRows] = {0, 1, 2, 3, 8, 9, 10, 11, 4, 5, 6, 7, 12, 13, 14, 15};

// out[j] lane l = (code dword j of row kLaneRow[l]) with the codes flipped to
// q + 128 (VPDPBUSD's unsigned operand). in[i] = rows i (low half) and i + 8.
[[gnu::always_inline]] inline void transpose_codes(const __m512i (&in)[8], __m512i (&out)[8]) {
  __m512i quads[2][4];  // quads[g][k], 128-bit lane L: dword k (L even) or 4 + k (L odd) of four rows
  for (int g = 0; g < 2; ++g) {
    const __m512i* z = in + 4 * g;
    const __m512i t0 = _mm512_unpacklo_epi32(z[0], z[1]), t1 = _mm512_unpackhi_epi32(z[0], z[1]);
    const __m512i t2 = _mm512_unpacklo_epi32(z[2], z[3]), t3 = _mm512_unpackhi_epi32(z[2], z[3]);
    quads[g][0] = _mm512_unpacklo_epi64(t0, t2);
    quads[g][1] = _mm512_unpackhi_epi64(t0, t2);
    quads[g][2] = _mm512_unpacklo_epi64(t1, t3);
    quads[g][3] = _mm512_unpackhi_epi64(t1, t3);
  }
#pragma GCC unroll 4
  for (int k = 0; k < 4; ++k) {
    out[k] = _mm512_shuffle_i64x2(quads[0][k], quads[1][k], _MM_SHUFFLE(2, 0, 2, 0));
    out[4 + k] = _mm512_shuffle_i64x2(quads[0][k], quads[1][k], _MM_SHUFFLE(3, 1, 3, 1));
  }
}

// Block column b of the pass's rows, transposed.
[[gnu::always_inline]] inline void load_column(const std::uint8_t* const (&row)[kRows], std::size_t offset,
                                               __m512i (&codes)[8]) {
  const __m512i flip = _mm512_set1_epi8(static_cast<char>(0x80));
  __m512i pairs[8];
#pragma GCC unroll 8
  for (int i = 0; i < 8; ++i) {
    const __m256i low = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(row[i] + offset));
    const __m256i high = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(row[i + 8] + offset));
    pairs[i] = _mm512_xor_si512(_mm512_inserti64x4(_mm512_castsi256_si512(low), high, 1), flip);
  }
  transpose_codes(pairs, codes);
}

std::int32_t code_word(const std::int8_t* codes) {
  std::int32_t word;
  std::memcpy(&word, codes, sizeof word);
  return word;
}

// Rows [first, first + n) (n <= 16; lanes past the last row repeat it) for
// the prepared tokens; out points at token 0's row `first`.
template <int kTokens>
void transposed_pass(const std::uint8_t* w, std::size_t row_bytes, std::size_t first, std::size_t n,
                     const PreparedActivations& x, bf16* out, std::size_t out_stride) {
  const std::uint8_t* row[kRows];
  alignas(64) std::int32_t scale_offsets[kRows];
  for (std::size_t r = 0; r < kRows; ++r) row[r] = w + (first + (r < n ? r : n - 1)) * row_bytes;
  for (std::size_t l = 0; l < kRows; ++l) {
    scale_offsets[l] = static_cast<std::int32_t>(row[kLaneRow[l]] - row[0]);
  }
  const __m512i scale_index = _mm512_load_si512(scale_offsets);
  const PassPrefetch<Isa> prefetch(row[0], kRows * row_bytes, x.blocks);
  __m512 acc[kTokens];
#pragma GCC unroll 4
  for (int t = 0; t < kTokens; ++t) acc[t] = _mm512_setzero_ps();
  for (std::size_t b = 0; b < x.blocks; ++b) {
    prefetch.step(b);
    __m512i codes[8];
    load_column(row, b * kBlockBytes + offsetof(BlockQ8_0, q), codes);
    const __m512 d = _mm512_castsi512_ps(_mm512_i32gather_epi32(scale_index, row[0] + b * kBlockBytes, 1));
#pragma GCC unroll 4
    for (int t = 0; t < kTokens; ++t) {
      const std::int8_t* xb = x.codes[t] + b * BlockQ8_0::kValues;
      __m512i sums = _mm512_set1_epi32(-(x.block_sums[b * kTokens + t] * 128));
#pragma GCC unroll 8
      for (int j = 0; j < 8; ++j) sums = _mm512_dpbusd_epi32(sums, codes[j], _mm512_set1_epi32(code_word(xb + 4 * j)));
      acc[t] = _mm512_add_ps(acc[t], _mm512_mul_ps(d, _mm512_cvtepi32_ps(sums)));
    }
  }
  const __m512i to_rows = _mm512_setr_epi32(0, 1, 2, 3, 8, 9, 10, 11, 4, 5, 6, 7, 12, 13, 14, 15);
#pragma GCC unroll 4
  for (int t = 0; t < kTokens; ++t) {
    const __m512 values = _mm512_mul_ps(acc[t], _mm512_set1_ps(x.scales[t]));
    store_lanes<Isa, 1>(_mm512_permutexvar_ps(to_rows, values), out + static_cast<std::size_t>(t) * out_stride, 0, n);
  }
}

template <int kTokens>
void transposed_rows(const std::uint8_t* w, std::size_t rows, std::size_t row_bytes, const PreparedActivations& x,
                     bf16* out, std::size_t out_stride) {
  for (std::size_t r = 0; r < rows; r += kRows) {
    transposed_pass<kTokens>(w, row_bytes, r, rows - r < kRows ? rows - r : kRows, x, out + r, out_stride);
  }
}

}  // namespace

void avx512::Isa::transposed_q8_0_gemm(const void* w, const std::int8_t* x, const float* x_scales, bf16* out,
                                       std::size_t out_stride, std::size_t n_tokens, std::size_t rows,
                                       std::size_t k) {
  const auto* weights = static_cast<const std::uint8_t*>(w);
  const std::size_t row_bytes = (k + BlockQ8_0::kValues - 1) / BlockQ8_0::kValues * kBlockBytes;
  PreparedActivations prepared;
  token_passes(n_tokens, [&](std::size_t t, std::size_t tokens) {
    prepare_activations(prepared, x + t * k, x_scales + t, tokens, k, BlockQ8_0::kValues, CodeOrder::natural);
    bf16* token_out = out + t * out_stride;
    if (tokens == 4) transposed_rows<4>(weights, rows, row_bytes, prepared, token_out, out_stride);
    if (tokens == 2) transposed_rows<2>(weights, rows, row_bytes, prepared, token_out, out_stride);
    if (tokens == 1) transposed_rows<1>(weights, rows, row_bytes, prepared, token_out, out_stride);
  });
}

}  // namespace quorvel::kernels::x86
