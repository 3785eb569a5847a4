// The one way layers spread a step over the worker pool. A thread that is
// already running a share of a pool job does the whole range itself (the
// pool takes no nested dispatch), and so does a caller with too few rows to
// be worth a dispatch; otherwise the pool runs the rows in units.
#pragma once

#include <algorithm>
#include <cstdint>

#include "runtime/checked_size.h"
#include "runtime/thread_pool.h"

namespace quorvel {

struct RowSplit {
  // Rows handed out together (a kernel's row group); the last unit may be
  // shorter, and the body is always called with rows, never units.
  std::uint64_t unit_rows = 1;
  // 0: one contiguous run of units per thread, in thread order. Otherwise
  // runs of this many units, handed out first come, first served.
  std::uint64_t chunk_units = 0;
  // Fewer rows than this run on the calling thread.
  std::uint64_t inline_below = 0;
};

// body(first_row, row_count) over [0, rows), by the rule above.
template <typename Body>
void parallel_rows(std::uint64_t rows, const RowSplit& split, Body&& body) {
  if (current_depth() != 0 || rows < split.inline_below) {
    body(std::uint64_t{0}, rows);
    return;
  }
  auto units = [&](std::uint64_t first, std::uint64_t count) {
    const std::uint64_t first_row = first * split.unit_rows;
    body(first_row, std::min(count * split.unit_rows, rows - first_row));
  };
  parallel_for(size_ceil_div(rows, split.unit_rows), split.chunk_units, units);
}

}  // namespace quorvel
