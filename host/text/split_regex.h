// The Split pre-tokenizer with behaviour Isolated: every match of the pattern is a piece, and so is any
// text between matches. Compiled by PCRE2 with Unicode properties, JIT-compiled where available.
#pragma once

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace quorvel::text {

class SplitRegex {
 public:
  // Throws std::invalid_argument with PCRE2's message when the pattern does not compile.
  explicit SplitRegex(const std::string& pattern);

  // Calls `piece` for each piece of `text`, in order; the pieces cover `text` exactly. `text` must be
  // valid UTF-8. Throws TextError when the match fails otherwise than by finding nothing (a match limit).
  void split(std::string_view text, const std::function<void(std::string_view)>& piece) const;

 private:
  std::unique_ptr<pcre2_code, decltype(&pcre2_code_free)> code_;
  bool jit_;
};

}  // namespace quorvel::text
