// Where a conversion writes: a directory beside the destination, named
// "<destination>.partial-<pid>", moved into place only when every file is
// complete. A failed or interrupted conversion never leaves a destination
// that looks like a model.
#pragma once

#include <filesystem>

namespace quorvel::convert {

class StagingDirectory {
 public:
  // Throws ConvertError when `destination` exists and is not an empty
  // directory (unless `replace`), or the staging directory cannot be made.
  StagingDirectory(std::filesystem::path destination, bool replace);
  ~StagingDirectory();  // removes the staging directory unless committed
  StagingDirectory(const StagingDirectory&) = delete;
  StagingDirectory& operator=(const StagingDirectory&) = delete;

  const std::filesystem::path& path() const { return staging_; }

  // Moves the staging directory to the destination, replacing what was
  // there. Throws ConvertError.
  void commit();

 private:
  std::filesystem::path destination_;
  std::filesystem::path staging_;
  bool committed_ = false;
};

}  // namespace quorvel::convert
