#include "engine/key_value_block.h"

#include <iostream>
#include <optional>
#include <stdexcept>

namespace quorvel {
namespace {

// The count line follows std::stoi: leading blanks and a sign are allowed and
// trailing text is ignored ("7abc" is 7). No digits, or a value outside the
// 32-bit range, is not a count.
std::optional<std::int32_t> parse_count(const std::string& line) {
  try {
    return std::stoi(line);
  } catch (const std::logic_error&) {  // invalid_argument or out_of_range
    return std::nullopt;
  }
}

// Splits at the first '=' and stores the pair, replacing an earlier value of
// the same key so that the last occurrence in a block wins. A line without
// '=' is warned about and dropped.
void store_line(const std::string& line, KeyValueBlock& block) {
  const std::size_t equals = line.find('=');
  if (equals == std::string::npos) {
    std::cerr << "Warning: malformed key=value line: '" << line << "'" << std::endl;
    return;
  }
  block[line.substr(0, equals)] = line.substr(equals + 1);
}

}  // namespace

std::int32_t read_block(std::istream& in, KeyValueBlock& block) {
  block.clear();
  std::string line;
  if (!std::getline(in, line)) {
    return -1;
  }
  const std::optional<std::int32_t> count = parse_count(line);
  if (!count) {
    std::cerr << "Protocol error: expected integer count, got '" << line << "'" << std::endl;
    return -1;
  }
  // A malformed line still uses up one of the N, so the host and the engine
  // stay in step on where the next block starts. The counter is wider than
  // the count so that a count of INT32_MAX cannot overflow it.
  for (std::int64_t i = 1; i <= *count; ++i) {
    if (!std::getline(in, line)) {
      std::cerr << "Protocol error: EOF reading key=value line " << i << " of " << *count << std::endl;
      return -1;
    }
    store_line(line, block);
  }
  return *count;
}

}  // namespace quorvel
