#include "host/text/stream_decoder.h"

#include <algorithm>
#include <string_view>

#include "host/text/utf8.h"

namespace quorvel::text {
namespace {

constexpr const char* kReplacement = "\xEF\xBF\xBD";

}  // namespace

StreamDecoder::StreamDecoder(const Tokenizer& tokenizer, std::vector<std::string> stop_strings)
    : tokenizer_(tokenizer), stop_strings_(std::move(stop_strings)) {
  std::erase_if(stop_strings_, [](const std::string& stop) { return stop.empty(); });
}

std::string StreamDecoder::push(TokenId id) {
  if (stopped()) return "";
  bytes_ += tokenizer_.token_bytes(id);
  std::string text;
  stop_at_ = find_stop();
  if (stop_at_) {
    emit(*stop_at_, true, text);
  } else {
    emit(bytes_.size() - held_for_stop(), false, text);
  }
  return text;
}

std::string StreamDecoder::finish() {
  std::string text;
  if (!stopped()) emit(bytes_.size(), true, text);
  return text;
}

void StreamDecoder::emit(std::size_t limit, bool final, std::string& out) {
  const std::string_view bytes = std::string_view(bytes_).substr(0, limit);
  while (emitted_ < bytes.size()) {
    const Utf8Sequence sequence = next_utf8_sequence(bytes, emitted_);
    if (sequence.kind == Utf8Kind::incomplete && !final) return;
    if (sequence.kind == Utf8Kind::complete) {
      out.append(bytes.substr(emitted_, sequence.length));
    } else {
      out += kReplacement;
    }
    emitted_ += sequence.length;
  }
}

// The first stop string in the text not yet emitted: no match can begin earlier, because text that
// could still begin one is never emitted.
std::optional<std::size_t> StreamDecoder::find_stop() const {
  std::optional<std::size_t> first;
  for (const std::string& stop : stop_strings_) {
    const std::size_t at = bytes_.find(stop, emitted_);
    if (at != std::string::npos && (!first || at < *first)) first = at;
  }
  return first;
}

// The length of the longest tail of the unemitted text that some stop string begins with.
std::size_t StreamDecoder::held_for_stop() const {
  const std::string_view pending = std::string_view(bytes_).substr(emitted_);
  std::size_t held = 0;
  for (const std::string& stop : stop_strings_) {
    for (std::size_t length = std::min(stop.size() - 1, pending.size()); length > held; --length) {
      if (pending.ends_with(std::string_view(stop).substr(0, length))) {
        held = length;
        break;
      }
    }
  }
  return held;
}

}  // namespace quorvel::text
