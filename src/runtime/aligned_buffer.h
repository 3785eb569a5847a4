// Owning, 128-byte aligned heap buffers. Every buffer a kernel reads or writes
// is allocated here, so that SIMD loads never straddle a cache line pair at
// the start of a row block and so that no two threads' outputs share a line.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <new>

#include "runtime/checked_size.h"
#include "runtime/huge_pages.h"

namespace quorvel {

inline constexpr std::size_t kBufferAlignment = 128;
// Buffers from this size on ask for huge pages (a few of them at least).
inline constexpr std::size_t kHugePageBufferBytes = std::size_t{8} << 20;

struct AlignedDeleter {
  void operator()(void* p) const { ::operator delete(p, std::align_val_t{kBufferAlignment}); }
};

template <typename T>
using AlignedPtr = std::unique_ptr<T[], AlignedDeleter>;

// Allocates `bytes` bytes (uninitialised) with 128-byte alignment, viewed as T.
// Throws std::bad_alloc when the memory is not there.
template <typename T>
AlignedPtr<T> allocate_aligned(std::size_t bytes) {
  // The aligned operator new rounds the size up to the alignment first,
  // which turns the overflow sentinel into a tiny allocation: refuse sizes
  // that cannot be rounded.
  if (bytes > std::numeric_limits<std::size_t>::max() - kBufferAlignment) throw std::bad_alloc();
  void* p = ::operator new(bytes == 0 ? kBufferAlignment : bytes, std::align_val_t{kBufferAlignment});
  if (bytes >= kHugePageBufferBytes) advise_huge_pages(p, bytes);
  return AlignedPtr<T>(static_cast<T*>(p));
}

// Allocates room for `count` elements of T; a count whose byte size
// overflows fails like any allocation that is too large.
template <typename T>
AlignedPtr<T> allocate_aligned_elements(std::uint64_t count) {
  return allocate_aligned<T>(size_mul(count, sizeof(T)));
}

}  // namespace quorvel
