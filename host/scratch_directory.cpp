#include "host/scratch_directory.h"

#include <random>
#include <system_error>

#include "tools/lib/utf8_path.h"

namespace quorvel::host {

ScratchDirectory::ScratchDirectory(const std::string& prefix) {
  std::random_device random;
  do {
    path_ = std::filesystem::temp_directory_path() / tools::utf8_path(prefix + std::to_string(random()));
  } while (!std::filesystem::create_directory(path_));
}

ScratchDirectory::~ScratchDirectory() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

}  // namespace quorvel::host
