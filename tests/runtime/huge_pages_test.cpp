#include "runtime/huge_pages.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#include "runtime/aligned_buffer.h"

namespace quorvel {
namespace {

// The system's transparent huge page setting, e.g. "always [madvise] never";
// empty where there is none.
std::string huge_page_setting() {
  std::ifstream in("/sys/kernel/mm/transparent_hugepage/enabled");
  std::string setting;
  std::getline(in, setting);
  return setting;
}

// The kilobytes of huge pages under the mapping of /proc/self/smaps that
// holds `address`, or -1 if no mapping does.
long huge_page_kilobytes_at(const void* address) {
  const auto at = reinterpret_cast<std::uintptr_t>(address);
  std::ifstream smaps("/proc/self/smaps");
  bool inside = false;
  for (std::string line; std::getline(smaps, line);) {
    std::uintptr_t start = 0, end = 0;
    char dash = 0;
    std::istringstream range(line);
    if (range >> std::hex >> start >> dash >> end && dash == '-') {
      inside = start <= at && at < end;
    } else if (inside && line.rfind("AnonHugePages:", 0) == 0) {
      return std::stol(line.substr(std::strlen("AnonHugePages:")));
    }
  }
  return -1;
}

TEST(HugePages, LargeBuffersAskForThemAndGetThemWhereOffered) {
#if !defined(__linux__)
  // Under Wine a Windows build would read the Linux host's files below.
  GTEST_SKIP() << "only the Linux build asks for huge pages";
#endif
  const std::string setting = huge_page_setting();
  if (setting.find("[madvise]") == std::string::npos && setting.find("[always]") == std::string::npos) {
    GTEST_SKIP() << "this system offers no transparent huge pages on request (" << setting << ")";
  }
  constexpr std::size_t kBytes = std::size_t{64} << 20;
  AlignedPtr<std::uint8_t> buffer = allocate_aligned<std::uint8_t>(kBytes);
  std::memset(buffer.get(), 1, kBytes);
  // At least one whole 2 MiB page lies inside 64 MiB; the kernel may still
  // find no free huge page, which is why the test asks for only one.
  EXPECT_GE(huge_page_kilobytes_at(buffer.get() + kBytes / 2), 2048);
}

TEST(HugePages, ABufferAdvisedSmallPagesGetsNone) {
  constexpr std::size_t kBytes = std::size_t{64} << 20;
  AlignedPtr<std::uint8_t> buffer = allocate_aligned<std::uint8_t>(kBytes);
  advise_small_pages(buffer.get(), kBytes);
  std::memset(buffer.get(), 1, kBytes);
  EXPECT_LE(huge_page_kilobytes_at(buffer.get() + kBytes / 2), 0);
}

TEST(HugePages, AdviceOnARangeWithoutAWholeHugePageIsHarmless) {
  AlignedPtr<std::uint8_t> buffer = allocate_aligned<std::uint8_t>(4096);
  advise_huge_pages(buffer.get(), 4096);
  advise_huge_pages(buffer.get(), 0);
  advise_small_pages(buffer.get(), 4096);
  std::memset(buffer.get(), 2, 4096);
  EXPECT_EQ(buffer[4095], 2);
}

}  // namespace
}  // namespace quorvel
