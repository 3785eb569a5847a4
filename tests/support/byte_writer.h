// Builds little-endian binary files in memory for reader tests.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <sstream>
#include <string>
#include <string_view>

namespace quorvel::testing {

class ByteWriter {
 public:
  ByteWriter& u8(std::uint8_t value) { return little_endian(value, 1); }
  ByteWriter& u16(std::uint16_t value) { return little_endian(value, 2); }
  ByteWriter& u32(std::uint32_t value) { return little_endian(value, 4); }
  ByteWriter& i32(std::int32_t value) { return little_endian(static_cast<std::uint32_t>(value), 4); }
  ByteWriter& u64(std::uint64_t value) { return little_endian(value, 8); }
  ByteWriter& f32(float value) { return u32(std::bit_cast<std::uint32_t>(value)); }
  // Raw bytes, e.g. a magic such as "QVLM".
  ByteWriter& text(std::string_view bytes) {
    bytes_.append(bytes);
    return *this;
  }

  const std::string& bytes() const { return bytes_; }
  std::size_t size() const { return bytes_.size(); }
  // The first `length` bytes only, to simulate a file cut short.
  std::string truncated(std::size_t length) const { return bytes_.substr(0, length); }

 private:
  ByteWriter& little_endian(std::uint64_t value, std::size_t width) {
    for (std::size_t i = 0; i < width; ++i) {
      bytes_.push_back(static_cast<char>((value >> (8 * i)) & 0xFF));
    }
    return *this;
  }

  std::string bytes_;
};

// A binary input stream over `bytes`, as the engine's file streams are opened.
inline std::istringstream binary_stream(const std::string& bytes) {
  return std::istringstream(bytes, std::ios::in | std::ios::binary);
}

}  // namespace quorvel::testing
