#include "runtime/kernel_sets.h"

#include <cstdlib>

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

// The first set of `sets` that this processor supports; null when none is.
const KernelSet* first_supported(std::span<const KernelSet> sets) {
  for (const KernelSet& set : sets) {
    if (set.supported()) return &set;
  }
  return nullptr;
}

const KernelSet* find_set(std::span<const KernelSet> sets, std::string_view name) {
  for (const KernelSet& set : sets) {
    if (name == set.name) return &set;
  }
  return nullptr;
}

// "a, b, c": the names of the sets of `sets` that this processor supports.
std::string supported_names(std::span<const KernelSet> sets) {
  std::string names;
  for (const KernelSet& set : sets) {
    if (set.supported()) names += (names.empty() ? "" : ", ") + std::string(set.name);
  }
  return names;
}

}  // namespace

std::span<const KernelSet> kernel_sets() { return kSets; }

const KernelSet& preferred_kernel_set() { return *first_supported(kSets); }

KernelSetChoice choose_kernel_set(std::span<const KernelSet> sets, std::string_view forced) {
  if (forced.empty()) return {first_supported(sets), ""};
  const KernelSet* named = find_set(sets, forced);
  if (named != nullptr && named->supported()) return {named, ""};
  const std::string problem = named == nullptr ? "names no kernel set of this build"
                                               : "names a kernel set this processor cannot run";
  return {nullptr, "Error: QUORVEL_KERNEL_SET=" + std::string(forced) + " " + problem + "; this processor runs " +
                       supported_names(sets)};
}

const KernelSetChoice& chosen_kernel_set() {
  static const KernelSetChoice choice = [] {
    const char* forced = std::getenv("QUORVEL_KERNEL_SET");
    return choose_kernel_set(kSets, forced == nullptr ? "" : forced);
  }();
  return choice;
}

}  // namespace quorvel::kernels
