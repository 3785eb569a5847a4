#include "io/lora_header.h"

#include "io/little_endian.h"
#include "io/versioned_header.h"

namespace quorvel {

bool check_lora_header(std::istream& in, std::uint32_t expected_version) {
  static constexpr HeaderMessages messages{
      "Invalid LoRA file. Download the correct LoRA file for the model.",
      "LoRA file version ",
      ". Download the correct LoRA file for the model or update your engine.",
  };
  return check_versioned_header(in, magic_word("QVLA"), expected_version, messages);
}

}  // namespace quorvel
