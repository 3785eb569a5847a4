#include "tools/lib/binary_writer.h"

#include <stdexcept>

namespace quorvel::tools {
namespace {

// Large writes dominate (whole weight rows), so a big stream buffer mainly
// saves system calls for the many small header and scale writes.
constexpr std::size_t kStreamBufferBytes = std::size_t{1} << 20;

}  // namespace

BinaryWriter::BinaryWriter(const std::filesystem::path& path) : path_(path), buffer_(kStreamBufferBytes) {
  out_.rdbuf()->pubsetbuf(buffer_.data(), static_cast<std::streamsize>(buffer_.size()));
  out_.open(path, std::ios::binary | std::ios::trunc);
  if (!out_.is_open()) {
    throw std::runtime_error("Could not create " + path.string());
  }
}

void BinaryWriter::write_bytes(const void* data, std::size_t size) {
  out_.write(static_cast<const char*>(data), static_cast<std::streamsize>(size));
  if (!out_) {
    throw std::runtime_error("Could not write " + path_.string());
  }
  bytes_written_ += size;
}

void BinaryWriter::finish() {
  out_.close();
  if (!out_) {
    throw std::runtime_error("Could not write " + path_.string());
  }
}

}  // namespace quorvel::tools
