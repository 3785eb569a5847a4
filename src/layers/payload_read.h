// Reading a layer's payload from the model tensor stream.
//
// Every object reads its own bytes, in file order, straight from the open
// stream. A short read is fatal for the model: the reader writes the
// short-read report to standard error (so that the user sees how far the file
// got) and throws the item's own message.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>

#include "runtime/aligned_buffer.h"

namespace quorvel::layers {

// The two texts of one payload item.
struct PayloadText {
  std::string prefix;   // report prefix, e.g. "Could not read in bias: read_bytes ("
  std::string failure;  // exception message, e.g. "Failed to read linear bias"
};

// Writes the report for a read that delivered `count` of `expected` units,
// then throws std::runtime_error(text.failure).
[[noreturn]] void fail_short_read(std::istream& in, const PayloadText& text, std::uint64_t count,
                                  std::uint64_t expected);

// Where a piece of an item lies within the item, counted in bytes.
struct PayloadPiece {
  std::uint64_t offset;  // bytes of the item read before this piece
  std::uint64_t bytes;   // bytes of this piece
  std::uint64_t total;   // bytes of the whole item
};

// Reads one piece of an item into `dst`. A short read reports what the item
// got so far (offset plus what this piece delivered) against its total, in
// units of `unit` bytes.
void read_payload_piece(std::istream& in, void* dst, const PayloadPiece& piece, const PayloadText& text,
                        std::uint64_t unit = 1);

// Reads exactly `bytes` bytes into the fresh buffer `dst`, in large pieces
// whose pages are first touched by the whole worker pool. On a short read
// the report counts in units of `unit` bytes (bytes by default; the RoPE
// tables count floats).
void read_payload(std::istream& in, void* dst, std::uint64_t bytes, const PayloadText& text,
                  std::uint64_t unit = 1);

// A layer whose payload is transformed at load (quantized, regrouped) reads
// it through one reused buffer of about 1 MiB of whole rows, so that the
// buffer stays in the cache and its pages are touched once per layer rather
// than once per byte of the file. The rows of such a batch: a multiple of
// `multiple` (at least one multiple), and no more than `rows`.
std::uint64_t source_batch_rows(std::uint64_t row_bytes, std::uint64_t rows, std::uint64_t multiple = 1);

// Allocates a 128-byte aligned buffer of `count` elements of T and fills it
// from the stream; a short read releases the buffer before the throw.
template <typename T>
AlignedPtr<T> read_table(std::istream& in, std::uint64_t count, const PayloadText& text,
                         std::uint64_t unit = 1) {
  AlignedPtr<T> table = allocate_aligned_elements<T>(count);
  read_payload(in, table.get(), size_mul(count, sizeof(T)), text, unit);
  return table;
}

}  // namespace quorvel::layers
