#include "host/memory_read_loops.h"

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace quorvel::host {
namespace {

// 16-byte vectors of four 32-bit lanes; the compiler maps them to SSE2 or NEON.
using Lanes128 = std::uint32_t __attribute__((vector_size(16)));

std::uint64_t read_generic(const std::byte* data, std::size_t bytes) {
  Lanes128 acc[8] = {};
  const auto* v = reinterpret_cast<const Lanes128*>(data);
  // Eight 16-byte vectors per step here, four steps per kReadStep.
  for (std::size_t i = 0; i < bytes / 16; i += 8) {
    for (int k = 0; k < 8; ++k) acc[k] += v[i + k];
  }
  std::uint64_t sum = 0;
  for (const Lanes128& a : acc) {
    for (int lane = 0; lane < 4; ++lane) sum += a[lane];
  }
  return sum;
}

#if defined(__x86_64__)
__attribute__((target("avx2"))) std::uint64_t read_avx2(const std::byte* data, std::size_t bytes) {
  __m256i acc[8];
  for (auto& a : acc) a = _mm256_setzero_si256();
  const auto* v = reinterpret_cast<const __m256i*>(data);
  for (std::size_t i = 0; i < bytes / 32; i += 8) {
    for (int k = 0; k < 8; ++k) acc[k] = _mm256_add_epi32(acc[k], _mm256_load_si256(v + i + k));
  }
  for (int k = 1; k < 8; ++k) acc[0] = _mm256_add_epi32(acc[0], acc[k]);
  alignas(32) std::uint32_t lanes[8];
  _mm256_store_si256(reinterpret_cast<__m256i*>(lanes), acc[0]);
  std::uint64_t sum = 0;
  for (std::uint32_t lane : lanes) sum += lane;
  return sum;
}

__attribute__((target("avx512f"))) std::uint64_t read_avx512(const std::byte* data, std::size_t bytes) {
  __m512i acc[8];
  for (auto& a : acc) a = _mm512_setzero_si512();
  const auto* v = reinterpret_cast<const __m512i*>(data);
  for (std::size_t i = 0; i < bytes / 64; i += 8) {
    for (int k = 0; k < 8; ++k) acc[k] = _mm512_add_epi32(acc[k], _mm512_load_si512(v + i + k));
  }
  for (int k = 1; k < 8; ++k) acc[0] = _mm512_add_epi32(acc[0], acc[k]);
  alignas(64) std::uint32_t lanes[16];
  _mm512_store_si512(lanes, acc[0]);
  std::uint64_t sum = 0;
  for (std::uint32_t lane : lanes) sum += lane;
  return sum;
}
#endif

}  // namespace

MemoryReadLoop generic_read_loop() { return {"16-byte vector", read_generic}; }

#if defined(__x86_64__)
MemoryReadLoop avx2_read_loop() { return {"AVX2 (32-byte)", read_avx2}; }
MemoryReadLoop avx512_read_loop() { return {"AVX-512 (64-byte)", read_avx512}; }
#endif

MemoryReadLoop widest_read_loop() {
#if defined(__x86_64__)
  if (__builtin_cpu_supports("avx512f")) return avx512_read_loop();
  if (__builtin_cpu_supports("avx2")) return avx2_read_loop();
#endif
  return generic_read_loop();
}

}  // namespace quorvel::host
