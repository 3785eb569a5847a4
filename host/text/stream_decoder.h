// Turns generated ids into text as they arrive. Only complete UTF-8 characters come out: a token that
// ends inside a character is held until the next token completes it. Bytes that no continuation can
// make valid become U+FFFD as soon as that is certain; finish() turns a held incomplete tail into U+FFFD.
//
// With stop strings, text that could still turn out to begin one is held as well, and the text ends
// where the first of them begins: neither the stop string nor anything after it comes out.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "host/text/tokenizer.h"

namespace quorvel::text {

class StreamDecoder {
 public:
  explicit StreamDecoder(const Tokenizer& tokenizer, std::vector<std::string> stop_strings = {});

  // The text that `id` completes (possibly empty); nothing once a stop string was reached.
  std::string push(TokenId id);

  // What is still held, as U+FFFD per incomplete sequence; the decoder is then empty again.
  std::string finish();

  // Whether the text reached a stop string.
  bool stopped() const { return stop_at_.has_value(); }

  // How many bytes of the tokens' text come before the stop string (all of them when none was reached).
  std::size_t accepted_bytes() const { return stop_at_.value_or(bytes_.size()); }

 private:
  // Appends the bytes from emitted_ up to `limit` that form whole characters (or, when `final`, all of them).
  void emit(std::size_t limit, bool final, std::string& out);
  std::optional<std::size_t> find_stop() const;
  std::size_t held_for_stop() const;

  const Tokenizer& tokenizer_;
  std::vector<std::string> stop_strings_;
  std::string bytes_;          // every byte pushed
  std::size_t emitted_ = 0;    // how many of them became text
  std::optional<std::size_t> stop_at_;
};

}  // namespace quorvel::text
