#include "runtime/kernel_sets.h"

#include "runtime/scalar/portable_kernels.h"

#if defined(QUORVEL_X86_KERNELS)
#include "runtime/x86/cpu_features_x86.h"
#include "runtime/x86/x86_kernels.h"
#endif
#if defined(__aarch64__)
#include <bit>

#include "runtime/arm/cpu_features_arm.h"
#include "runtime/arm/neon_kernels.h"
#endif

namespace quorvel::kernels {
namespace {

template <typename Set>
std::unique_ptr<KernelBase> make_set() {
  return std::make_unique<Set>();
}

bool always() { return true; }

#if defined(__aarch64__)
// The NEON set with the products chosen by the given feature record.
template <std::uint16_t kFeatureBits>
std::unique_ptr<KernelBase> make_neon_set() {
  return std::make_unique<arm::NEONKernels>(std::bit_cast<CpuFeatures>(kFeatureBits));
}
#endif

constexpr KernelSet kSets[] = {
#if defined(QUORVEL_X86_KERNELS)
    {"avx512", x86::cpu_runs_avx512_set, make_set<x86::Avx512Kernels>},
    {"avx-vnni", x86::cpu_runs_avx_vnni_set, make_set<x86::AvxVnniKernels>},
    {"avx2", x86::cpu_runs_avx2_set, make_set<x86::Avx2Kernels>},
#endif
#if defined(__aarch64__)
    {"neon-dotprod", arm::cpu_has_dot_product, make_neon_set<arm::kDotProductFeatureBits>},
    {"neon", always, make_neon_set<0>},
#endif
    {"portable", always, make_set<PortableKernels>},
};

}  // namespace

std::span<const KernelSet> kernel_sets() { return kSets; }

const KernelSet& preferred_kernel_set() {
  for (const KernelSet& set : kSets) {
    if (set.supported()) return set;
  }
  return kSets[std::size(kSets) - 1];
}

}  // namespace quorvel::kernels
