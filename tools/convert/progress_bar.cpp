#include "tools/convert/progress_bar.h"

#include <cstdio>

namespace quorvel::convert {
namespace {

constexpr int kBarWidth = 30;

}  // namespace

ProgressBar::ProgressBar(std::ostream& out, bool redraw, std::uint64_t total_tensors, std::uint64_t total_bytes)
    : out_(out), redraw_(redraw), total_tensors_(total_tensors), total_bytes_(total_bytes == 0 ? 1 : total_bytes) {}

void ProgressBar::advance(std::uint64_t bytes) {
  ++tensors_;
  bytes_ += bytes;
  const int tenth = static_cast<int>(10 * bytes_ / total_bytes_);
  const auto now = std::chrono::steady_clock::now();
  if (redraw_ ? now - last_draw_ > std::chrono::milliseconds(100) : tenth > last_tenth_) {
    last_tenth_ = tenth;
    last_draw_ = now;
    draw();
  }
}

void ProgressBar::finish() {
  // A log already has its line for the whole work; a terminal gets the
  // final state and its line end.
  if (redraw_) {
    draw();
    out_ << '\n';
  } else if (last_tenth_ < 10) {
    draw();
  }
  out_.flush();
}

void ProgressBar::draw() {
  const double done = static_cast<double>(bytes_) / static_cast<double>(total_bytes_);
  const int filled = static_cast<int>(done * kBarWidth);
  out_ << (redraw_ ? "\r" : "") << '[' << std::string(static_cast<std::size_t>(filled), '#')
       << std::string(static_cast<std::size_t>(kBarWidth - filled), ' ') << "] " << static_cast<int>(done * 100)
       << "%  " << tensors_ << "/" << total_tensors_ << " tensors, " << format_bytes(bytes_) << " / "
       << format_bytes(total_bytes_) << (redraw_ ? "" : "\n") << std::flush;
}

std::string format_bytes(std::uint64_t bytes) {
  const char* units[] = {"B", "kB", "MB", "GB", "TB"};
  double value = static_cast<double>(bytes);
  int unit = 0;
  while (value >= 1000.0 && unit < 4) {
    value /= 1000.0;
    ++unit;
  }
  char text[32];
  std::snprintf(text, sizeof text, unit == 0 ? "%.0f %s" : "%.1f %s", value, units[unit]);
  return text;
}

}  // namespace quorvel::convert
