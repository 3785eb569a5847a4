#include "io/versioned_header.h"

#include <iostream>

#include "io/little_endian.h"

namespace quorvel {

bool check_versioned_header(std::istream& in, std::uint32_t magic, std::uint32_t expected_version,
                            const HeaderMessages& messages) {
  const auto file_magic = read_le<std::uint32_t>(in);
  const auto version = read_le<std::uint32_t>(in);
  read_le<std::uint32_t>(in);  // reserved: read so that the payload starts at offset 12
  if (!in || file_magic != magic) {
    std::cerr << messages.invalid << std::endl;
    return false;
  }
  if (version != expected_version) {
    std::cerr << messages.version_prefix << version << ", engine expects version " << expected_version
              << messages.advice << std::endl;
    return false;
  }
  return true;
}

}  // namespace quorvel
