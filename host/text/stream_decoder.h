// Turns generated ids into text as they arrive. Only complete UTF-8 characters come out: a token that
// ends inside a character is held until the next token completes it. Bytes that no continuation can
// make valid become U+FFFD as soon as that is certain; finish() turns a held incomplete tail into U+FFFD.
#pragma once

#include <string>

#include "host/text/tokenizer.h"

namespace quorvel::text {

class StreamDecoder {
 public:
  explicit StreamDecoder(const Tokenizer& tokenizer) : tokenizer_(tokenizer) {}

  // The text that `id` completes (possibly empty).
  std::string push(TokenId id);

  // What is still held, as U+FFFD per incomplete sequence; the decoder is then empty again.
  std::string finish();

 private:
  const Tokenizer& tokenizer_;
  std::string held_;
};

}  // namespace quorvel::text
