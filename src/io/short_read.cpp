#include "io/short_read.h"

#include <algorithm>
#include <iostream>
#include <limits>

namespace quorvel {

ReadResult read_exact(std::istream& in, void* dest, std::uint64_t bytes) {
  // std::istream::read takes a signed count; a larger request cannot be met
  // and must not wrap to a negative one.
  if (bytes > static_cast<std::uint64_t>(std::numeric_limits<std::streamsize>::max())) {
    in.setstate(std::ios::failbit);
    return {false, 0};
  }
  in.read(static_cast<char*>(dest), static_cast<std::streamsize>(bytes));
  return {!in.fail(), static_cast<std::uint64_t>(in.gcount())};
}

bool read_backed(std::istream& in, std::uint64_t bytes, std::vector<char>& out) {
  constexpr std::uint64_t kFirstStep = std::uint64_t{1} << 20;
  out.clear();
  while (out.size() < bytes) {
    const std::uint64_t filled = out.size();
    const std::uint64_t step = std::min(bytes - filled, std::max(filled, kFirstStep));
    out.resize(filled + step);
    if (!read_exact(in, out.data() + filled, step)) return false;
  }
  return true;
}

void report_short_read(std::istream& in, std::string_view prefix, std::uint64_t count_read,
                       std::uint64_t expected) {
  const int at_eof = in.eof() ? 1 : 0;
  const auto position = static_cast<std::int64_t>(in.tellg());
  std::cerr << prefix << count_read << ") != " << expected << "; EOF: " << at_eof << ", FTELL: " << position
            << std::endl;
}

}  // namespace quorvel
