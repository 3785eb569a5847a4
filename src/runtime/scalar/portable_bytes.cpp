// Byte copy and fill: whole 16-byte blocks, then the tail by the library call.
// The split is the contract that the SIMD sets follow with one vector a block.
#include <cstring>

#include "runtime/scalar/portable_kernels.h"

namespace quorvel::kernels {

namespace {

constexpr size_t kByteBlock = 16;

}  // namespace

void PortableKernels::copy_bytes(void* dst, const void* src, size_t n) const {
  auto* out = static_cast<unsigned char*>(dst);
  const auto* in = static_cast<const unsigned char*>(src);
  const size_t blocked = n - n % kByteBlock;
  for (size_t offset = 0; offset < blocked; offset += kByteBlock) {
    std::memcpy(out + offset, in + offset, kByteBlock);
  }
  // n == 0 may come with null pointers, which memcpy must not see.
  if (blocked < n) std::memcpy(out + blocked, in + blocked, n - blocked);
}

void PortableKernels::fill_bytes(void* dst, int value, size_t n) const {
  auto* out = static_cast<unsigned char*>(dst);
  const auto byte = static_cast<unsigned char>(value);
  const size_t blocked = n - n % kByteBlock;
  for (size_t offset = 0; offset < blocked; offset += kByteBlock) {
    std::memset(out + offset, byte, kByteBlock);
  }
  if (blocked < n) std::memset(out + blocked, byte, n - blocked);
}

}  // namespace quorvel::kernels
