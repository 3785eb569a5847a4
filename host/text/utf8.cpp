#include "host/text/utf8.h"

namespace quorvel::text {
namespace {

struct LeadByte {
  std::size_t length;
  unsigned char second_low;  // the range allowed for the second byte, which rules out overlong forms,
  unsigned char second_high;  // surrogates and code points above U+10FFFF
};

std::optional<LeadByte> lead_byte(unsigned char byte) {
  if (byte >= 0xC2 && byte <= 0xDF) return LeadByte{2, 0x80, 0xBF};
  if (byte == 0xE0) return LeadByte{3, 0xA0, 0xBF};
  if (byte == 0xED) return LeadByte{3, 0x80, 0x9F};
  if (byte >= 0xE1 && byte <= 0xEF) return LeadByte{3, 0x80, 0xBF};
  if (byte == 0xF0) return LeadByte{4, 0x90, 0xBF};
  if (byte >= 0xF1 && byte <= 0xF3) return LeadByte{4, 0x80, 0xBF};
  if (byte == 0xF4) return LeadByte{4, 0x80, 0x8F};
  return std::nullopt;
}

}  // namespace

Utf8Sequence next_utf8_sequence(std::string_view bytes, std::size_t offset) {
  const auto first = static_cast<unsigned char>(bytes[offset]);
  if (first < 0x80) return {Utf8Kind::complete, 1};
  const std::optional<LeadByte> lead = lead_byte(first);
  if (!lead) return {Utf8Kind::invalid, 1};
  for (std::size_t i = 1; i < lead->length; ++i) {
    if (offset + i == bytes.size()) return {Utf8Kind::incomplete, i};
    const auto byte = static_cast<unsigned char>(bytes[offset + i]);
    const unsigned char low = i == 1 ? lead->second_low : 0x80;
    const unsigned char high = i == 1 ? lead->second_high : 0xBF;
    if (byte < low || byte > high) return {Utf8Kind::invalid, i};
  }
  return {Utf8Kind::complete, lead->length};
}

std::optional<std::size_t> first_invalid_utf8_byte(std::string_view bytes) {
  std::size_t offset = 0;
  while (offset < bytes.size()) {
    if (static_cast<unsigned char>(bytes[offset]) < 0x80) {
      ++offset;
      continue;
    }
    const Utf8Sequence sequence = next_utf8_sequence(bytes, offset);
    if (sequence.kind != Utf8Kind::complete) return offset;
    offset += sequence.length;
  }
  return std::nullopt;
}

std::string with_replacements(std::string_view bytes) {
  std::string text;
  text.reserve(bytes.size());
  for (std::size_t offset = 0; offset < bytes.size();) {
    const Utf8Sequence sequence = next_utf8_sequence(bytes, offset);
    text += sequence.kind == Utf8Kind::complete ? bytes.substr(offset, sequence.length) : "\xEF\xBF\xBD";
    offset += sequence.length;
  }
  return text;
}

}  // namespace quorvel::text
