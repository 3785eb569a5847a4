// What MappedFile does alike on every platform; mapping and unmapping are in
// mapped_file_posix.cpp and mapped_file_windows.cpp.
#include "tools/convert/mapped_file.h"

#include <utility>

namespace quorvel::convert {

MappedFile::~MappedFile() { unmap(); }

MappedFile::MappedFile(MappedFile&& other) noexcept
    : path_(std::move(other.path_)), data_(std::exchange(other.data_, nullptr)), size_(std::exchange(other.size_, 0)) {}

MappedFile& MappedFile::operator=(MappedFile&& other) noexcept {
  if (this != &other) {
    unmap();
    path_ = std::move(other.path_);
    data_ = std::exchange(other.data_, nullptr);
    size_ = std::exchange(other.size_, 0);
  }
  return *this;
}

}  // namespace quorvel::convert
