#include "runtime/huge_pages.h"

#include <cstdint>

#if defined(__linux__)
#include <sys/mman.h>
#endif

namespace quorvel {
namespace {

#if defined(__linux__) && defined(MADV_HUGEPAGE)
// Gives `advice` for the whole huge pages of the range.
void advise_whole_huge_pages(void* buffer, std::size_t bytes, int advice) {
  constexpr std::uintptr_t kHugePage = std::uintptr_t{1} << 21;
  const auto start = reinterpret_cast<std::uintptr_t>(buffer);
  const std::uintptr_t first = (start + kHugePage - 1) & ~(kHugePage - 1);
  const std::uintptr_t end = (start + bytes) & ~(kHugePage - 1);
  if (end > first) madvise(reinterpret_cast<void*>(first), end - first, advice);
}
#endif

}  // namespace

void advise_huge_pages([[maybe_unused]] void* buffer, [[maybe_unused]] std::size_t bytes) {
#if defined(__linux__) && defined(MADV_HUGEPAGE)
  advise_whole_huge_pages(buffer, bytes, MADV_HUGEPAGE);
#endif
}

void advise_small_pages([[maybe_unused]] void* buffer, [[maybe_unused]] std::size_t bytes) {
#if defined(__linux__) && defined(MADV_NOHUGEPAGE)
  advise_whole_huge_pages(buffer, bytes, MADV_NOHUGEPAGE);
#endif
}

}  // namespace quorvel
