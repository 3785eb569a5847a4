#include "runtime/arm/cpu_features_arm.h"

#include <bit>

#if defined(_WIN32)
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#include <windows.h>
// Older Windows SDK and MinGW-w64 headers lack the flag.
#ifndef PF_ARM_V82_DP_INSTRUCTIONS_AVAILABLE
#define PF_ARM_V82_DP_INSTRUCTIONS_AVAILABLE 43
#endif
#else
#include <asm/hwcap.h>
#include <sys/auxv.h>
#endif

namespace quorvel::kernels::arm {

namespace {

// The record's byte order: has_int8_matrix first, has_dot_product second.
static_assert(std::endian::native == std::endian::little);

bool os_reports_dot_product() {
#if defined(_WIN32)
  return IsProcessorFeaturePresent(PF_ARM_V82_DP_INSTRUCTIONS_AVAILABLE) != 0;
#else
  return (getauxval(AT_HWCAP) & HWCAP_ASIMDDP) != 0;
#endif
}

CpuFeatures query_cpu_features() {
  const std::uint16_t bits = os_reports_dot_product() ? kDotProductFeatureBits : 0;
  return std::bit_cast<CpuFeatures>(bits);
}

}  // namespace

const CpuFeatures& cpu_features() {
  static const CpuFeatures features = query_cpu_features();
  return features;
}

bool cpu_has_dot_product() { return cpu_features().has_dot_product == 1; }

}  // namespace quorvel::kernels::arm
