#include "layers/payload_read.h"

#include <istream>
#include <stdexcept>

#include "io/short_read.h"

namespace quorvel::layers {

void fail_short_read(std::istream& in, const PayloadText& text, std::uint64_t count, std::uint64_t expected) {
  report_short_read(in, text.prefix, count, expected);
  throw std::runtime_error(text.failure);
}

void read_payload(std::istream& in, void* dst, std::uint64_t bytes, const PayloadText& text, std::uint64_t unit) {
  const ReadResult result = read_exact(in, dst, bytes);
  if (!result) fail_short_read(in, text, result.bytes_read / unit, bytes / unit);
}

}  // namespace quorvel::layers
