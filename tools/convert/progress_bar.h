// Progress of a long conversion on standard error: tensors and bytes done.
// On a terminal one line is redrawn in place; elsewhere (a log, a pipe) a
// line is printed at every tenth of the work.
#pragma once

#include <chrono>
#include <cstdint>
#include <ostream>
#include <string>

namespace quorvel::convert {

class ProgressBar {
 public:
  ProgressBar(std::ostream& out, bool redraw, std::uint64_t total_tensors, std::uint64_t total_bytes);

  void advance(std::uint64_t bytes);
  void finish();

 private:
  void draw();

  std::ostream& out_;
  bool redraw_;
  std::uint64_t total_tensors_, total_bytes_;
  std::uint64_t tensors_ = 0, bytes_ = 0;
  int last_tenth_ = 0;
  std::chrono::steady_clock::time_point last_draw_{};
};

// "1.23 GB", "456.7 MB", "12.0 kB", "34 B".
std::string format_bytes(std::uint64_t bytes);

}  // namespace quorvel::convert
