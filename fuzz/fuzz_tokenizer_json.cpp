// A tokenizer.json document as the host's text library loads it. Input:
// the document, optionally followed by a NUL byte and a text of its own
// (no JSON text holds a raw NUL). A tokenizer that loads encodes a fixed
// text and that one, with special tokens matched and not, and decodes the
// ids; without a normalizer the decoded bytes must be the text again.
// Every refusal is a TextError; anything else escapes and is reported.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/text/text_error.h"
#include "host/text/tokenizer.h"

using namespace quorvel::text;

namespace {

// ASCII words and numbers, contractions, runs of spaces and newlines, two-
// three- and four-byte characters, a decomposed accent and special-token text.
constexpr std::string_view kFixedText =
    "Hello world, it's 2024!\n\n  tabs\tand  spaces   \xc3\xa9t\xc3\xa9 "
    "\xe4\xb8\xad\xe6\x96\x87 \xf0\x9f\x98\x80 e\xcc\x81 <|endoftext|><x>ab abc";

std::optional<Tokenizer> load(std::string_view document) {
  try {
    return Tokenizer::from_json_text(document, "fuzz-input.json");
  } catch (const TextError&) {
    return std::nullopt;  // refused: the expected end of most inputs
  }
}

bool has_normalizer(std::string_view document) {
  const nlohmann::json root = nlohmann::json::parse(document, nullptr, false);
  const auto normalizer = root.find("normalizer");
  return normalizer != root.end() && !normalizer->is_null();
}

void encode_and_decode(const Tokenizer& tokenizer, std::string_view text, bool round_trip) {
  for (const bool special_tokens : {true, false}) {
    std::vector<TokenId> ids;
    try {
      ids = tokenizer.encode(text, special_tokens);
    } catch (const TextError&) {
      continue;  // text that is not UTF-8, or a regex that gives up on it
    }
    // Every id that encoding gives has bytes: a TextError here escapes.
    const std::string decoded = tokenizer.decode(ids);
    if (round_trip && decoded != text) {
      std::fprintf(stderr, "decode(encode(text)) differs: %zu bytes in, %zu out (special tokens %s)\n", text.size(),
                   decoded.size(), special_tokens ? "on" : "off");
      __builtin_trap();
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const std::size_t nul = input.find('\0');
  const std::string_view document = input.substr(0, nul);
  const std::optional<Tokenizer> tokenizer = load(document);
  if (!tokenizer) return 0;
  const bool round_trip = !has_normalizer(document);
  encode_and_decode(*tokenizer, kFixedText, round_trip);
  if (nul != std::string_view::npos) encode_and_decode(*tokenizer, input.substr(nul + 1), round_trip);
  return 0;
}
