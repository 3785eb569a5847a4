#include "tools/convert/staging_directory.h"

#include <unistd.h>

#include <system_error>

#include "tools/convert/convert_error.h"

namespace quorvel::convert {
namespace fs = std::filesystem;

namespace {

// "out/" names the directory "out".
fs::path without_trailing_slash(const fs::path& path) {
  const fs::path normal = path.lexically_normal();
  return normal.has_filename() ? normal : normal.parent_path();
}

fs::path beside(const fs::path& destination, const char* what) {
  fs::path name = destination.filename();
  name += what + std::to_string(::getpid());  // ASCII: no conversion to fear
  return destination.parent_path() / name;
}

}  // namespace

StagingDirectory::StagingDirectory(fs::path destination, bool replace)
    : destination_(without_trailing_slash(destination)), staging_(beside(destination_, ".partial-")) {
  std::error_code error;
  if (fs::exists(destination_) && !replace && !(fs::is_directory(destination_) && fs::is_empty(destination_))) {
    throw ConvertError(destination_, "exists and is not empty (--force replaces it)");
  }
  fs::create_directories(staging_, error);
  if (error) throw ConvertError(staging_, "cannot be created: " + error.message());
}

StagingDirectory::~StagingDirectory() {
  std::error_code ignored;
  if (!committed_) fs::remove_all(staging_, ignored);
}

void StagingDirectory::commit() {
  std::error_code error;
  const fs::path previous = beside(destination_, ".previous-");
  const bool had_destination = fs::exists(destination_);
  if (had_destination) fs::rename(destination_, previous, error);
  if (!error) fs::rename(staging_, destination_, error);
  if (error) {
    const std::string problem = error.message();
    if (had_destination) fs::rename(previous, destination_, error);
    throw ConvertError(destination_, "cannot be put in place: " + problem);
  }
  committed_ = true;
  fs::remove_all(previous, error);
}

}  // namespace quorvel::convert
