// A new, empty directory of our own under the system's temporary one,
// removed with everything in it when the object goes. Plain C++ (no mkdtemp,
// which Windows lacks): a random name, taken only if nobody has it yet.
#pragma once

#include <filesystem>
#include <string>

namespace quorvel::host {

class ScratchDirectory {
 public:
  // Named "<prefix><random number>"; the prefix is UTF-8. Throws
  // std::filesystem::filesystem_error.
  explicit ScratchDirectory(const std::string& prefix = "quorvel-");
  ~ScratchDirectory();
  ScratchDirectory(const ScratchDirectory&) = delete;
  ScratchDirectory& operator=(const ScratchDirectory&) = delete;

  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

}  // namespace quorvel::host
