#include "runtime/x86/cpu_features_x86.h"

#include <cpuid.h>

#include <cstdint>

namespace quorvel::kernels::x86 {
namespace {

struct CpuidLeaf {
  unsigned eax = 0, ebx = 0, ecx = 0, edx = 0;
};

CpuidLeaf cpuid(unsigned leaf, unsigned subleaf) {
  CpuidLeaf r;
  // An absent leaf reports no features. GCC's header returns unsigned, clang's int.
  if (leaf > static_cast<unsigned>(__get_cpuid_max(0, nullptr))) return r;
  __cpuid_count(leaf, subleaf, r.eax, r.ebx, r.ecx, r.edx);
  return r;
}

bool bit(unsigned reg, unsigned n) { return ((reg >> n) & 1u) != 0; }

// XCR0: which register states the OS saves on a context switch. A processor
// may have AVX while the OS leaves it off; then the instructions fault.
std::uint64_t saved_register_state() {
  if (!bit(cpuid(1, 0).ecx, 27)) return 0;  // OSXSAVE: XGETBV itself is unavailable
  std::uint32_t lo = 0, hi = 0;
  __asm__ volatile("xgetbv" : "=a"(lo), "=d"(hi) : "c"(0));
  return (static_cast<std::uint64_t>(hi) << 32) | lo;
}

constexpr std::uint64_t kYmmState = 0x6;     // SSE + AVX upper halves
constexpr std::uint64_t kZmmState = 0xE0;    // opmask, ZMM0-15 upper halves, ZMM16-31

}  // namespace

bool cpu_runs_avx2_set() {
  const CpuidLeaf l1 = cpuid(1, 0);
  const CpuidLeaf l7 = cpuid(7, 0);
  const bool fma = bit(l1.ecx, 12), avx = bit(l1.ecx, 28), f16c = bit(l1.ecx, 29);
  const bool avx2 = bit(l7.ebx, 5);
  return fma && avx && f16c && avx2 && (saved_register_state() & kYmmState) == kYmmState;
}

bool cpu_runs_avx_vnni_set() {
  // Subleaf 1 exists when subleaf 0 reports at least one more.
  const bool avx_vnni = cpuid(7, 0).eax >= 1 && bit(cpuid(7, 1).eax, 4);
  return cpu_runs_avx2_set() && avx_vnni;
}

bool cpu_runs_avx512_set() {
  const CpuidLeaf l7 = cpuid(7, 0);
  const bool f = bit(l7.ebx, 16), bw = bit(l7.ebx, 30), vl = bit(l7.ebx, 31), vnni = bit(l7.ecx, 11);
  const std::uint64_t state = kYmmState | kZmmState;
  return cpu_runs_avx2_set() && f && bw && vl && vnni && (saved_register_state() & state) == state;
}

}  // namespace quorvel::kernels::x86
