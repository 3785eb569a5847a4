#include "layers/payload_read.h"

#include <algorithm>
#include <istream>
#include <stdexcept>

#include "io/short_read.h"
#include "runtime/first_touch.h"

namespace quorvel::layers {
namespace {

// Large enough that a read costs little beyond its copy, small enough that a
// file shorter than it claims gets few pages touched beyond its end.
constexpr std::uint64_t kReadPieceBytes = std::uint64_t{16} << 20;
constexpr std::uint64_t kSourceBatchBytes = std::uint64_t{1} << 20;

}  // namespace

void fail_short_read(std::istream& in, const PayloadText& text, std::uint64_t count, std::uint64_t expected) {
  report_short_read(in, text.prefix, count, expected);
  throw std::runtime_error(text.failure);
}

void read_payload_piece(std::istream& in, void* dst, const PayloadPiece& piece, const PayloadText& text,
                        std::uint64_t unit) {
  const ReadResult result = read_exact(in, dst, piece.bytes);
  if (!result) fail_short_read(in, text, (piece.offset + result.bytes_read) / unit, piece.total / unit);
}

std::uint64_t source_batch_rows(std::uint64_t row_bytes, std::uint64_t rows, std::uint64_t multiple) {
  const std::uint64_t fit = kSourceBatchBytes / std::max<std::uint64_t>(row_bytes, 1) / multiple;
  return std::min(size_mul(std::max<std::uint64_t>(fit, 1), multiple), rows);
}

void read_payload(std::istream& in, void* dst, std::uint64_t bytes, const PayloadText& text, std::uint64_t unit) {
  auto* first = static_cast<char*>(dst);
  std::uint64_t offset = 0;
  do {
    const std::uint64_t piece = std::min(bytes - offset, kReadPieceBytes);
    touch_pages(first + offset, piece);
    read_payload_piece(in, first + offset, {offset, piece, bytes}, text, unit);
    offset += piece;
  } while (offset < bytes);
}

}  // namespace quorvel::layers
