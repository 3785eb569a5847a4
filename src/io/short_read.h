// Bulk reads of the model files and the one-line report that every table
// reader prints when such a read comes up short.
#pragma once

#include <cstdint>
#include <istream>
#include <string_view>
#include <vector>

namespace quorvel {

struct ReadResult {
  bool ok;                   // neither the fail nor the bad flag is set afterwards
  std::uint64_t bytes_read;  // what the read delivered (the stream's gcount)
  explicit operator bool() const { return ok; }
};

// One read of exactly `bytes` bytes into `dest`, which must hold that many.
// A count beyond what a stream can read in one call fails the stream
// without touching `dest`.
ReadResult read_exact(std::istream& in, void* dest, std::uint64_t bytes);

// Reads exactly `bytes` bytes into `out`, growing it only as the stream
// delivers (one step at a time, each at most as large as what was read
// before it): a size that a crafted file claims but does not hold costs no
// more memory than the bytes it does hold. False on a short read.
bool read_backed(std::istream& in, std::uint64_t bytes, std::vector<char>& out);

// Writes the short-read line to standard error:
//   <prefix><count_read>) != <expected>; EOF: <0|1>, FTELL: <position>
// `prefix` carries the table's own wording up to the open parenthesis, e.g.
// "Could not read in cos: read_bytes (". The caller picks the units of both
// numbers. The position is tellg() as a signed number, so -1 once the
// stream has failed.
void report_short_read(std::istream& in, std::string_view prefix, std::uint64_t count_read,
                       std::uint64_t expected);

}  // namespace quorvel
