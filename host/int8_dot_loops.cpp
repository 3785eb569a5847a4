#include "host/int8_dot_loops.h"

#if defined(__x86_64__)
#include <immintrin.h>
#endif
#if defined(__aarch64__)
#include <arm_neon.h>
#endif

namespace quorvel::host {
namespace {

// Hides from the compiler that the operand pointer stays the same, so that
// every round loads its operands again and no product is hoisted out of the
// loop; the accumulators stay in registers.
inline void reload_barrier(const std::int8_t*& x) { asm volatile("" : "+r"(x)); }

std::int64_t dot_portable(const std::int8_t* x, std::uint8_t w, std::uint64_t rounds) {
  std::uint32_t acc[8] = {};
  for (std::uint64_t r = 0; r < rounds; ++r) {
    for (int i = 0; i < 128; i += 8) {
      for (int k = 0; k < 8; ++k) acc[k] += static_cast<std::uint32_t>(w * x[i + k]);
    }
    reload_barrier(x);
  }
  std::int64_t sum = 0;
  for (std::uint32_t a : acc) sum += static_cast<std::int32_t>(a);
  return sum;
}

#if defined(__x86_64__)
// vpdpbusd: 64 unsigned-by-signed byte products per zmm, summed by fours
// into 32-bit lanes. Twelve accumulators.
__attribute__((target("avx512f,avx512vnni"))) std::int64_t dot_vnni(const std::int8_t* x, std::uint8_t w,
                                                                     std::uint64_t rounds) {
  const __m512i weights = _mm512_set1_epi8(static_cast<char>(w));
  __m512i acc[12];
  for (auto& a : acc) a = _mm512_setzero_si512();
  for (std::uint64_t r = 0; r < rounds; ++r) {
    for (int k = 0; k < 12; ++k) acc[k] = _mm512_dpbusd_epi32(acc[k], weights, _mm512_load_si512(x + 64 * k));
    reload_barrier(x);
  }
  for (int k = 1; k < 12; ++k) acc[0] = _mm512_add_epi32(acc[0], acc[k]);
  alignas(64) std::int32_t lanes[16];
  _mm512_store_si512(lanes, acc[0]);
  std::int64_t sum = 0;
  for (std::int32_t lane : lanes) sum += lane;
  return sum;
}

// The VEX vpdpbusd of AVX-VNNI: 32 unsigned-by-signed byte products per ymm,
// summed by fours into 32-bit lanes. Twelve accumulators.
__attribute__((target("avx2,avxvnni"))) std::int64_t dot_avx_vnni(const std::int8_t* x, std::uint8_t w,
                                                                   std::uint64_t rounds) {
  const __m256i weights = _mm256_set1_epi8(static_cast<char>(w));
  __m256i acc[12];
  for (auto& a : acc) a = _mm256_setzero_si256();
  for (std::uint64_t r = 0; r < rounds; ++r) {
    for (int k = 0; k < 12; ++k) {
      acc[k] = _mm256_dpbusd_avx_epi32(acc[k], weights, _mm256_load_si256(reinterpret_cast<const __m256i*>(x) + k));
    }
    reload_barrier(x);
  }
  for (int k = 1; k < 12; ++k) acc[0] = _mm256_add_epi32(acc[0], acc[k]);
  alignas(32) std::int32_t lanes[8];
  _mm256_store_si256(reinterpret_cast<__m256i*>(lanes), acc[0]);
  std::int64_t sum = 0;
  for (std::int32_t lane : lanes) sum += lane;
  return sum;
}

// vpmaddubsw (byte pairs to 16 bits), vpmaddwd by ones (to 32 bits), vpaddd
// into the accumulator: 32 byte products per ymm. Eight accumulators.
__attribute__((target("avx2"))) std::int64_t dot_avx2(const std::int8_t* x, std::uint8_t w,
                                                       std::uint64_t rounds) {
  const __m256i weights = _mm256_set1_epi8(static_cast<char>(w));
  const __m256i ones = _mm256_set1_epi16(1);
  __m256i acc[8];
  for (auto& a : acc) a = _mm256_setzero_si256();
  for (std::uint64_t r = 0; r < rounds; ++r) {
    for (int k = 0; k < 8; ++k) {
      const __m256i pairs = _mm256_maddubs_epi16(weights, _mm256_load_si256(reinterpret_cast<const __m256i*>(x) + k));
      acc[k] = _mm256_add_epi32(acc[k], _mm256_madd_epi16(pairs, ones));
    }
    reload_barrier(x);
  }
  alignas(32) std::int32_t lanes[8];
  for (int k = 1; k < 8; ++k) acc[0] = _mm256_add_epi32(acc[0], acc[k]);
  _mm256_store_si256(reinterpret_cast<__m256i*>(lanes), acc[0]);
  std::int64_t sum = 0;
  for (std::int32_t lane : lanes) sum += lane;
  return sum;
}
#endif

#if defined(__aarch64__)
// sdot: 16 signed byte products per vector, summed by fours into 32-bit
// lanes. Eight accumulators.
__attribute__((target("arch=armv8.2-a+dotprod"))) std::int64_t dot_sdot(const std::int8_t* x, std::uint8_t w,
                                                                         std::uint64_t rounds) {
  const int8x16_t weights = vdupq_n_s8(static_cast<std::int8_t>(w));
  int32x4_t acc[8];
  for (auto& a : acc) a = vdupq_n_s32(0);
  for (std::uint64_t r = 0; r < rounds; ++r) {
    for (int k = 0; k < 8; ++k) acc[k] = vdotq_s32(acc[k], weights, vld1q_s8(x + 16 * k));
    reload_barrier(x);
  }
  std::int64_t sum = 0;
  for (const auto& a : acc) sum += vaddvq_s32(a);
  return sum;
}

// smull (8 byte products to 16 bits) and sadalp (pairs added into 32-bit
// lanes): low and high halves of four vectors, eight accumulators.
std::int64_t dot_smull(const std::int8_t* x, std::uint8_t w, std::uint64_t rounds) {
  const int8x16_t weights = vdupq_n_s8(static_cast<std::int8_t>(w));
  int32x4_t acc[8];
  for (auto& a : acc) a = vdupq_n_s32(0);
  for (std::uint64_t r = 0; r < rounds; ++r) {
    for (int k = 0; k < 4; ++k) {
      const int8x16_t v = vld1q_s8(x + 16 * k);
      acc[2 * k] = vpadalq_s16(acc[2 * k], vmull_s8(vget_low_s8(weights), vget_low_s8(v)));
      acc[2 * k + 1] = vpadalq_s16(acc[2 * k + 1], vmull_high_s8(weights, v));
    }
    reload_barrier(x);
  }
  std::int64_t sum = 0;
  for (const auto& a : acc) sum += vaddvq_s32(a);
  return sum;
}
#endif

}  // namespace

Int8DotLoop int8_dot_loop_for(std::string_view kernel_set) {
#if defined(__x86_64__)
  if (kernel_set == "avx512") return {"vpdpbusd zmm", 12 * 64, dot_vnni};
  if (kernel_set == "avx-vnni") return {"vpdpbusd ymm", 12 * 32, dot_avx_vnni};
  if (kernel_set == "avx2") return {"vpmaddubsw + vpmaddwd + vpaddd ymm", 8 * 32, dot_avx2};
#endif
#if defined(__aarch64__)
  if (kernel_set == "neon-dotprod") return {"sdot", 8 * 16, dot_sdot};
  if (kernel_set == "neon") return {"smull + sadalp", 4 * 16, dot_smull};
#endif
  return {"plain C++ int8 multiply-add", 128, dot_portable};
}

}  // namespace quorvel::host
