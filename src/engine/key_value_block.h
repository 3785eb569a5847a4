// The framing of everything the host sends on standard input: a count line
// and that many key=value lines.
#pragma once

#include <cstdint>
#include <istream>
#include <string>
#include <unordered_map>

namespace quorvel {

using KeyValueBlock = std::unordered_map<std::string, std::string>;

// Empties `block` and reads one block from `in`. Returns the count N when
// N >= 1 and all N lines were read (malformed lines are warned about and
// skipped), N itself when N <= 0, and -1 at end of input, on a count line
// that is not an integer, or when input ends inside the block.
std::int32_t read_block(std::istream& in, KeyValueBlock& block);

}  // namespace quorvel
