#include "tools/convert/mapped_file.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "tools/convert/convert_error.h"

namespace quorvel::convert {

MappedFile::MappedFile(const std::filesystem::path& path) : path_(path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) throw ConvertError(path, std::string("cannot be opened: ") + std::strerror(errno));
  struct stat info {};
  if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
    ::close(fd);
    throw ConvertError(path, "is not a regular file");
  }
  size_ = static_cast<std::size_t>(info.st_size);
  if (size_ > 0) {
    void* mapped = ::mmap(nullptr, size_, PROT_READ, MAP_PRIVATE, fd, 0);
    if (mapped == MAP_FAILED) {
      const int error = errno;
      ::close(fd);
      throw ConvertError(path, std::string("cannot be mapped: ") + std::strerror(error));
    }
    // Conversion reads every tensor once, front to back.
    ::madvise(mapped, size_, MADV_SEQUENTIAL);
    data_ = static_cast<const std::uint8_t*>(mapped);
  }
  ::close(fd);
}

MappedFile::~MappedFile() {
  if (data_) ::munmap(const_cast<std::uint8_t*>(data_), size_);
}

MappedFile::MappedFile(MappedFile&& other) noexcept
    : path_(std::move(other.path_)),
      data_(std::exchange(other.data_, nullptr)),
      size_(std::exchange(other.size_, 0)) {}

MappedFile& MappedFile::operator=(MappedFile&& other) noexcept {
  if (this != &other) {
    if (data_) ::munmap(const_cast<std::uint8_t*>(data_), size_);
    path_ = std::move(other.path_);
    data_ = std::exchange(other.data_, nullptr);
    size_ = std::exchange(other.size_, 0);
  }
  return *this;
}

}  // namespace quorvel::convert
