// Byte copy and fill: whole 16-byte blocks through one vector register each,
// then the tail by the library call (n == 0 does nothing).
#include <arm_neon.h>

#include <cstring>

#include "runtime/arm/neon_kernels.h"

namespace quorvel::kernels::arm {

namespace {

constexpr size_t kBlock = 16;

}  // namespace

void NEONKernels::copy_bytes(void* dst, const void* src, size_t n) const {
  auto* out = static_cast<std::uint8_t*>(dst);
  const auto* in = static_cast<const std::uint8_t*>(src);
  const size_t blocked = n - n % kBlock;
  for (size_t offset = 0; offset < blocked; offset += kBlock) vst1q_u8(out + offset, vld1q_u8(in + offset));
  // n == 0 may come with null pointers, which memcpy must not see.
  if (blocked < n) std::memcpy(out + blocked, in + blocked, n - blocked);
}

void NEONKernels::fill_bytes(void* dst, int value, size_t n) const {
  auto* out = static_cast<std::uint8_t*>(dst);
  const auto byte = static_cast<std::uint8_t>(value);
  const uint8x16_t block = vdupq_n_u8(byte);
  const size_t blocked = n - n % kBlock;
  for (size_t offset = 0; offset < blocked; offset += kBlock) vst1q_u8(out + offset, block);
  if (blocked < n) std::memset(out + blocked, byte, n - blocked);
}

}  // namespace quorvel::kernels::arm
