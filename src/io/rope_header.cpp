#include "io/rope_header.h"

#include "io/little_endian.h"
#include "io/versioned_header.h"

namespace quorvel {

bool check_rope_header(std::istream& in, std::uint32_t expected_version) {
  // The cache is generated next to the model, so the advice is to regenerate it.
  static constexpr HeaderMessages messages{
      "Invalid RoPE cache file. Re-run: make generate MODEL_DIR=<path>.",
      "RoPE cache version ",
      ". Re-run: make generate MODEL_DIR=<path>.",
  };
  return check_versioned_header(in, magic_word("QVRC"), expected_version, messages);
}

}  // namespace quorvel
