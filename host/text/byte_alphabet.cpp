#include "host/text/byte_alphabet.h"

#include <array>

#include "host/text/utf8.h"

namespace quorvel::text {
namespace {

bool stands_for_itself(unsigned byte) {
  return (byte >= 0x21 && byte <= 0x7E) || (byte >= 0xA1 && byte <= 0xAC) || (byte >= 0xAE);
}

struct Alphabet {
  std::array<int, 324> byte_of_symbol{};  // symbols are below U+0100 + 68; -1: not a symbol

  Alphabet() {
    byte_of_symbol.fill(-1);
    char32_t next_substitute = 0x100;
    for (unsigned byte = 0; byte < 256; ++byte) {
      const char32_t symbol = stands_for_itself(byte) ? byte : next_substitute++;
      byte_of_symbol[symbol] = static_cast<int>(byte);
    }
  }
};

const Alphabet& alphabet() {
  static const Alphabet table;
  return table;
}

char32_t decode_code_point(std::string_view bytes, std::size_t offset, std::size_t length) {
  if (length == 1) return static_cast<unsigned char>(bytes[offset]);
  const unsigned lead_bits = length == 2 ? 0x1F : length == 3 ? 0x0F : 0x07;
  char32_t code_point = static_cast<unsigned char>(bytes[offset]) & lead_bits;
  for (std::size_t i = 1; i < length; ++i) code_point = (code_point << 6) | (bytes[offset + i] & 0x3F);
  return code_point;
}

}  // namespace

std::optional<std::string> bytes_of_symbols(std::string_view symbols) {
  std::string bytes;
  bytes.reserve(symbols.size());
  std::size_t offset = 0;
  while (offset < symbols.size()) {
    const Utf8Sequence sequence = next_utf8_sequence(symbols, offset);
    if (sequence.kind != Utf8Kind::complete) return std::nullopt;
    const char32_t symbol = decode_code_point(symbols, offset, sequence.length);
    if (symbol >= alphabet().byte_of_symbol.size() || alphabet().byte_of_symbol[symbol] < 0) return std::nullopt;
    bytes.push_back(static_cast<char>(alphabet().byte_of_symbol[symbol]));
    offset += sequence.length;
  }
  return bytes;
}

}  // namespace quorvel::text
