#include "tools/lib/binary_writer.h"

#include <cstring>
#include <stdexcept>

namespace quorvel::tools {
namespace {

// Writes reach the file in whole buffers. The stream's own buffer is not
// used: it passes every write of a kilobyte or more (a weight row) straight
// to the system, a call per row.
constexpr std::size_t kBufferBytes = std::size_t{1} << 20;

}  // namespace

BinaryWriter::BinaryWriter(const std::filesystem::path& path) : path_(path), buffer_(kBufferBytes) {
  out_.rdbuf()->pubsetbuf(nullptr, 0);
  out_.open(path, std::ios::binary | std::ios::trunc);
  if (!out_.is_open()) {
    throw std::runtime_error("Could not create " + path.string());
  }
}

void BinaryWriter::write_bytes(const void* data, std::size_t size) {
  if (buffered_ + size > buffer_.size()) flush();
  if (size >= buffer_.size()) {
    write_to_file(static_cast<const char*>(data), size);
  } else {
    std::memcpy(buffer_.data() + buffered_, data, size);
    buffered_ += size;
  }
  bytes_written_ += size;
}

void BinaryWriter::flush() {
  write_to_file(buffer_.data(), buffered_);
  buffered_ = 0;
}

void BinaryWriter::write_to_file(const char* data, std::size_t size) {
  out_.write(data, static_cast<std::streamsize>(size));
  if (!out_) {
    throw std::runtime_error("Could not write " + path_.string());
  }
}

void BinaryWriter::finish() {
  flush();
  out_.close();
  if (!out_) {
    throw std::runtime_error("Could not write " + path_.string());
  }
}

}  // namespace quorvel::tools
