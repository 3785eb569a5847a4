#include "runtime/parallel_rows.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <mutex>
#include <vector>

namespace quorvel {
namespace {

const bool kThreadsRequested = (set_thread_count(3), true);

struct Range {
  std::uint64_t first;
  std::uint64_t count;
  std::uint64_t worker;
  bool operator<(const Range& other) const { return first < other.first; }
};

// The calls parallel_rows makes, sorted by first row.
std::vector<Range> calls(std::uint64_t rows, const RowSplit& split) {
  std::mutex mutex;
  std::vector<Range> seen;
  parallel_rows(rows, split, [&](std::uint64_t first, std::uint64_t count) {
    const std::lock_guard<std::mutex> lock(mutex);
    seen.push_back({first, count, worker_index()});
  });
  std::sort(seen.begin(), seen.end());
  return seen;
}

// Every row in [0, rows) exactly once, in ranges that start on unit
// boundaries and are whole units except the one that ends at `rows`.
void expect_units_cover(const std::vector<Range>& ranges, std::uint64_t rows, std::uint64_t unit) {
  std::uint64_t next = 0;
  for (const Range& r : ranges) {
    EXPECT_EQ(r.first, next);
    EXPECT_EQ(r.first % unit, 0u);
    if (r.first + r.count != rows) {
      EXPECT_EQ(r.count % unit, 0u) << "range at " << r.first;
    }
    next = r.first + r.count;
  }
  EXPECT_EQ(next, rows);
}

TEST(ParallelRows, SplitsIntoWholeUnitsWithAShortLastUnit) {
  ASSERT_TRUE(kThreadsRequested);
  for (std::uint64_t rows : {1u, 4u, 31u, 32u, 33u, 95u, 100u, 1000u}) {
    for (std::uint64_t unit : {1u, 4u, 32u}) {
      SCOPED_TRACE(testing::Message() << rows << " rows, units of " << unit);
      const std::vector<Range> ranges = calls(rows, {.unit_rows = unit});
      expect_units_cover(ranges, rows, unit);
      EXPECT_LE(ranges.size(), thread_count());
    }
  }
}

TEST(ParallelRows, ChunkedRunsCoverEveryRowOnce) {
  const std::vector<Range> ranges = calls(103, {.unit_rows = 4, .chunk_units = 2});
  expect_units_cover(ranges, 103, 4);
  for (const Range& r : ranges) EXPECT_LE(r.count, 8u);
  EXPECT_GE(ranges.size(), 13u);
}

TEST(ParallelRows, FewRowsRunOnTheCallingThreadInOneCall) {
  const std::vector<Range> few = calls(5, {.unit_rows = 2, .inline_below = 6});
  ASSERT_EQ(few.size(), 1u);
  EXPECT_EQ(few[0].first, 0u);
  EXPECT_EQ(few[0].count, 5u);
  EXPECT_EQ(few[0].worker, 0u);
  // At the threshold the pool takes them.
  EXPECT_GT(calls(6, {.inline_below = 6}).size(), 1u);
}

TEST(ParallelRows, InsideAPoolJobTheWholeRangeRunsOnThatThread) {
  std::mutex mutex;
  std::vector<std::vector<Range>> nested;
  parallel_rows(thread_count(), {}, [&](std::uint64_t, std::uint64_t) {
    std::vector<Range> inner = calls(64, {.unit_rows = 8});
    const std::lock_guard<std::mutex> lock(mutex);
    nested.push_back(inner);
  });
  ASSERT_EQ(nested.size(), thread_count());
  for (const auto& inner : nested) {
    ASSERT_EQ(inner.size(), 1u);
    EXPECT_EQ(inner[0].count, 64u);
  }
}

}  // namespace
}  // namespace quorvel
