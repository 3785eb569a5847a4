// The header of "qmodel.tensors": format version, architecture code and,
// from version 4 on, a table of the optional sections the file carries.
#pragma once

#include <cstdint>
#include <istream>

namespace quorvel {

// What the header check hands back to the driver.
struct ModelFileInfo {
  std::uint32_t version = 0;
  std::int32_t arch = 0;
  std::uint32_t section_count = 0;  // stays 0 until a section entry has been read
  bool has_section_2 = false;       // Qwen3.5 visual (multimodal) sections
  bool has_section_3 = false;       // Qwen3.5 MTP sections
  bool has_section_4 = false;
  bool has_section_5 = false;
  bool has_section_6 = false;
};

// Checks magic "QVLM", version 3 or 4 and the architecture against
// `expected_arch`, then reads a version-4 section table, leaving the stream
// where the weights begin. Fills `info` when it is not null. Writes its own
// message to standard error and returns false on failure; never throws.
bool check_model_header(std::istream& in, std::int32_t expected_arch, ModelFileInfo* info);

}  // namespace quorvel
