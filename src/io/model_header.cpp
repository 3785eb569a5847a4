#include "io/model_header.h"

#include <iostream>
#include <iterator>

#include "io/little_endian.h"

namespace quorvel {
namespace {

constexpr std::uint32_t kFirstSectionKind = 2;
constexpr bool ModelFileInfo::* kSectionFlags[] = {
    &ModelFileInfo::has_section_2, &ModelFileInfo::has_section_3, &ModelFileInfo::has_section_4,
    &ModelFileInfo::has_section_5, &ModelFileInfo::has_section_6,
};

// Kinds outside 2..6 are skipped: newer converters may add sections that
// this engine does not need to know about.
void mark_section(ModelFileInfo& info, std::uint8_t kind) {
  if (kind >= kFirstSectionKind && kind < kFirstSectionKind + std::size(kSectionFlags)) {
    info.*kSectionFlags[kind - kFirstSectionKind] = true;
  }
}

// Entries are 5 packed bytes (kind, then a 32-bit value the engine does not
// use), read field by field so that no struct padding creeps in.
bool read_section_table(std::istream& in, std::uint32_t count, ModelFileInfo& info) {
  for (std::uint32_t i = 0; i < count; ++i) {
    const auto kind = read_le<std::uint8_t>(in);
    read_le<std::uint32_t>(in);
    if (!in) {
      std::cerr << "Model file section table is truncated." << std::endl;
      return false;
    }
    info.section_count = count;
    mark_section(info, kind);
  }
  return true;
}

}  // namespace

bool check_model_header(std::istream& in, std::int32_t expected_arch, ModelFileInfo* info) {
  const auto magic = read_le<std::uint32_t>(in);
  const auto version = read_le<std::uint32_t>(in);
  const auto arch = static_cast<std::int32_t>(read_le<std::uint32_t>(in));
  // Read in both versions so that the header is always 16 bytes; only
  // version 4 has a table behind it.
  const auto section_count = read_le<std::uint32_t>(in);
  if (!in || magic != magic_word("QVLM")) {
    std::cerr << "Invalid model file! Download the correct model file." << std::endl;
    return false;
  }
  if (version != 3 && version != 4) {
    std::cerr << "Model file version " << version << ", engine expects version 3 or 4"
              << ". Download the correct model file or update your engine." << std::endl;
    return false;
  }
  if (arch != expected_arch) {
    std::cerr << "Model file architecture " << arch << ", engine expects " << expected_arch
              << ". Download the correct model file or use the right tensorfile." << std::endl;
    return false;
  }
  ModelFileInfo found;
  found.version = version;
  found.arch = arch;
  const bool table_read = version != 4 || read_section_table(in, section_count, found);
  if (info != nullptr) {
    *info = found;
  }
  return table_read;
}

}  // namespace quorvel
