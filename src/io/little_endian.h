// Little-endian fields of the model files. The bytes are assembled
// explicitly so that the files read the same on any host byte order.
#pragma once

#include <array>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <istream>

namespace quorvel {

// The word that four magic bytes such as "QVLM" form when read as one
// little-endian unsigned 32-bit value.
constexpr std::uint32_t magic_word(const char (&text)[5]) {
  std::uint32_t word = 0;
  for (std::size_t i = 0; i < 4; ++i) {
    word |= static_cast<std::uint32_t>(static_cast<unsigned char>(text[i])) << (8 * i);
  }
  return word;
}

// Reads one little-endian field. The result is meaningful only while the
// stream is good: headers read all their fields first and then test the
// stream once. Missing bytes read as zero.
template <std::unsigned_integral T>
T read_le(std::istream& in) {
  std::array<unsigned char, sizeof(T)> bytes{};
  in.read(reinterpret_cast<char*>(bytes.data()), sizeof(T));
  T value = 0;
  for (std::size_t i = 0; i < sizeof(T); ++i) {
    value = static_cast<T>(value | (static_cast<T>(bytes[i]) << (8 * i)));
  }
  return value;
}

}  // namespace quorvel
