// The converter's progress in a log (not a terminal): a line at each tenth
// of the bytes reached, one line for the whole work, and sizes in SI units.
#include "tools/convert/progress_bar.h"

#include <gtest/gtest.h>

#include <sstream>

namespace quorvel::convert {
namespace {

TEST(ProgressBar, ALogGetsALinePerTenthReachedAndOneForTheEnd) {
  std::ostringstream log;
  ProgressBar progress(log, false, 4, 1000);
  for (const std::uint64_t bytes : {50, 500, 250, 200}) progress.advance(bytes);
  progress.finish();
  EXPECT_EQ(log.str(),
            "[################              ] 55%  2/4 tensors, 550 B / 1.0 kB\n"
            "[########################      ] 80%  3/4 tensors, 800 B / 1.0 kB\n"
            "[##############################] 100%  4/4 tensors, 1.0 kB / 1.0 kB\n");
}

TEST(ProgressBar, ByteCountsReadInSiUnits) {
  EXPECT_EQ(format_bytes(999), "999 B");
  EXPECT_EQ(format_bytes(1000), "1.0 kB");
  EXPECT_EQ(format_bytes(1'178'628'717), "1.2 GB");
  EXPECT_EQ(format_bytes(5'000'000'000'000'000), "5000.0 TB");
}

}  // namespace
}  // namespace quorvel::convert
