#include "runtime/first_touch.h"

#include <algorithm>

#include "runtime/kernel_base.h"
#include "runtime/parallel_rows.h"

namespace quorvel {
namespace {

// The smallest page of the supported systems: touching every 4 KiB touches
// every page of any larger size too.
constexpr std::uint64_t kPageBytes = 4096;
// Fewer pages than this are not worth a dispatch.
constexpr std::uint64_t kParallelPages = 64;

// body(page_start, page_bytes) over the pages of the buffer, in parallel;
// the last page may be shorter.
template <typename Body>
void for_each_page_run(void* buffer, std::uint64_t bytes, Body&& body) {
  auto* first = static_cast<char*>(buffer);
  parallel_rows(size_ceil_div(bytes, kPageBytes), {.inline_below = kParallelPages},
                [&](std::uint64_t page, std::uint64_t pages) {
                  const std::uint64_t start = page * kPageBytes;
                  body(first + start, std::min(pages * kPageBytes, bytes - start));
                });
}

}  // namespace

void touch_pages(void* buffer, std::uint64_t bytes) {
  for_each_page_run(buffer, bytes, [](char* run, std::uint64_t run_bytes) {
    for (std::uint64_t offset = 0; offset < run_bytes; offset += kPageBytes) {
      *static_cast<volatile char*>(run + offset) = 0;
    }
  });
}

void clear_pages(void* buffer, std::uint64_t bytes) {
  for_each_page_run(buffer, bytes,
                    [](char* run, std::uint64_t run_bytes) { kernels::kernels().fill_bytes(run, 0, run_bytes); });
}

}  // namespace quorvel
