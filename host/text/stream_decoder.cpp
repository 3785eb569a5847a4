#include "host/text/stream_decoder.h"

#include "host/text/utf8.h"

namespace quorvel::text {
namespace {

constexpr const char* kReplacement = "\xEF\xBF\xBD";

}  // namespace

std::string StreamDecoder::push(TokenId id) {
  held_ += tokenizer_.token_bytes(id);
  std::string text;
  std::size_t offset = 0;
  while (offset < held_.size()) {
    const Utf8Sequence sequence = next_utf8_sequence(held_, offset);
    if (sequence.kind == Utf8Kind::incomplete) break;
    if (sequence.kind == Utf8Kind::complete) {
      text.append(held_, offset, sequence.length);
    } else {
      text += kReplacement;
    }
    offset += sequence.length;
  }
  held_.erase(0, offset);
  return text;
}

std::string StreamDecoder::finish() {
  std::string text = held_.empty() ? "" : kReplacement;
  held_.clear();
  return text;
}

}  // namespace quorvel::text
