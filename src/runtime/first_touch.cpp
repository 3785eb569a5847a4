#include "runtime/first_touch.h"

#include "runtime/parallel_rows.h"

namespace quorvel {
namespace {

// The smallest page of the supported systems: a write every 4 KiB, and one
// to the last byte, reach every page of a buffer of any larger page size too.
constexpr std::uint64_t kPageBytes = 4096;
// Fewer pages than this are not worth a dispatch.
constexpr std::uint64_t kParallelPages = 64;

}  // namespace

void touch_pages(void* buffer, std::uint64_t bytes) {
  auto* bytes_of = static_cast<volatile char*>(buffer);
  parallel_rows(size_ceil_div(bytes, kPageBytes), {.inline_below = kParallelPages},
                [&](std::uint64_t first, std::uint64_t count) {
                  for (std::uint64_t page = first; page < first + count; ++page) bytes_of[page * kPageBytes] = 0;
                });
  if (bytes != 0) bytes_of[bytes - 1] = 0;
}

}  // namespace quorvel
