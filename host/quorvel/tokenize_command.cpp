// quorvel tokenize / detokenize: all of standard input through the tokenizer, one way or the other.
#include <charconv>
#include <iostream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <sstream>

#include "host/quorvel/command_error.h"
#include "host/quorvel/commands.h"
#include "host/quorvel/id_list.h"
#include "host/text/tokenizer.h"
#include "host/text/utf8.h"

namespace quorvel::cli {
namespace {

text::Tokenizer load_tokenizer(const std::filesystem::path& source) {
  if (std::filesystem::is_directory(source)) return text::Tokenizer(source / "tokenizer.json");
  return text::Tokenizer(source);
}

std::string read_standard_input() {
  std::ostringstream text;
  text << std::cin.rdbuf();
  return text.str();
}

std::vector<text::TokenId> parse_ids(const std::string& input) {
  std::vector<text::TokenId> ids;
  std::size_t at = 0;
  while ((at = input.find_first_not_of(" \t\r\n,", at)) != std::string::npos) {
    const std::size_t end = std::min(input.find_first_of(" \t\r\n,", at), input.size());
    text::TokenId id = 0;
    const auto [stop, error] = std::from_chars(input.data() + at, input.data() + end, id);
    if (error != std::errc() || stop != input.data() + end) {
      throw CommandError("'" + input.substr(at, end - at) + "' is not a token id");
    }
    ids.push_back(id);
    at = end;
  }
  return ids;
}

}  // namespace

int tokenize_command(const TokenizeOptions& options) {
  const text::Tokenizer tokenizer = load_tokenizer(options.source);
  const std::vector<text::TokenId> ids = tokenizer.encode(read_standard_input(), options.special);
  if (options.json) {
    nlohmann::json pieces = nlohmann::json::array();
    for (const text::TokenId id : ids) pieces.push_back(text::with_replacements(tokenizer.token_bytes(id)));
    std::cout << nlohmann::json{{"ids", ids}, {"tokens", pieces}, {"count", ids.size()}}.dump() << std::endl;
    return 0;
  }
  std::cout << id_list(ids, ' ') << std::endl;
  return 0;
}

int detokenize_command(const TokenizeOptions& options) {
  const text::Tokenizer tokenizer = load_tokenizer(options.source);
  std::cout << tokenizer.decode(parse_ids(read_standard_input())) << std::flush;
  return 0;
}

}  // namespace quorvel::cli
