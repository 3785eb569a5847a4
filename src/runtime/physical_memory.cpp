#include "runtime/physical_memory.h"

#include "runtime/checked_size.h"

#if defined(_WIN32)
#include <windows.h>
#else
#include <unistd.h>
#endif

namespace quorvel {

std::uint64_t physical_memory_bytes() {
#if defined(_WIN32)
  MEMORYSTATUSEX status{};
  status.dwLength = sizeof status;
  if (!GlobalMemoryStatusEx(&status)) return kSizeOverflow;
  return status.ullTotalPhys;
#else
  const long pages = sysconf(_SC_PHYS_PAGES);
  const long page_size = sysconf(_SC_PAGESIZE);
  if (pages <= 0 || page_size <= 0) return kSizeOverflow;
  return size_mul(static_cast<std::uint64_t>(pages), static_cast<std::uint64_t>(page_size));
#endif
}

}  // namespace quorvel
