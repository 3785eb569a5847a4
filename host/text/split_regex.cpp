#include "host/text/split_regex.h"

#include <stdexcept>

#include "host/text/text_error.h"

namespace quorvel::text {
namespace {

std::string error_message(int error) {
  PCRE2_UCHAR message[256];
  pcre2_get_error_message(error, message, sizeof message);
  return reinterpret_cast<const char*>(message);
}

// \C (one byte, even inside a character) is refused: a match could end inside a character, and the next
// search, which skips the UTF-8 check, may only start on a character's first byte.
pcre2_code* compile(const std::string& pattern) {
  int error = 0;
  PCRE2_SIZE error_offset = 0;
  pcre2_code* code = pcre2_compile(reinterpret_cast<PCRE2_SPTR>(pattern.data()), pattern.size(),
                                   PCRE2_UTF | PCRE2_UCP | PCRE2_NEVER_BACKSLASH_C, &error, &error_offset, nullptr);
  if (code) return code;
  throw std::invalid_argument("the pre-tokenizer regex does not compile at offset " + std::to_string(error_offset) +
                              ": " + error_message(error));
}

}  // namespace

SplitRegex::SplitRegex(const std::string& pattern)
    : code_(compile(pattern), pcre2_code_free), jit_(pcre2_jit_compile(code_.get(), PCRE2_JIT_COMPLETE) == 0) {}

void SplitRegex::split(std::string_view text, const std::function<void(std::string_view)>& piece) const {
  std::unique_ptr<pcre2_match_data, decltype(&pcre2_match_data_free)> match(
      pcre2_match_data_create_from_pattern(code_.get(), nullptr), pcre2_match_data_free);
  const auto subject = reinterpret_cast<PCRE2_SPTR>(text.data());
  std::size_t done = 0;
  std::size_t search_from = 0;
  while (search_from < text.size()) {
    const int found = jit_ ? pcre2_jit_match(code_.get(), subject, text.size(), search_from, 0, match.get(), nullptr)
                           : pcre2_match(code_.get(), subject, text.size(), search_from, PCRE2_NO_UTF_CHECK,
                                         match.get(), nullptr);
    if (found == PCRE2_ERROR_NOMATCH) break;
    if (found < 0) throw TextError("the pre-tokenizer regex failed on the input (" + error_message(found) + ")");
    const PCRE2_SIZE* bounds = pcre2_get_ovector_pointer(match.get());
    if (bounds[1] == bounds[0]) {
      // An empty match isolates nothing; look again one character further on.
      search_from = bounds[0] + 1;
      while (search_from < text.size() && (static_cast<unsigned char>(text[search_from]) & 0xC0) == 0x80) ++search_from;
      continue;
    }
    if (bounds[0] > done) piece(text.substr(done, bounds[0] - done));
    piece(text.substr(bounds[0], bounds[1] - bounds[0]));
    done = search_from = bounds[1];
  }
  if (done < text.size()) piece(text.substr(done));
}

}  // namespace quorvel::text
