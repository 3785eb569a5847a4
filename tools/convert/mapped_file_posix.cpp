#include "tools/convert/mapped_file.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

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

void MappedFile::unmap() noexcept {
  if (data_) ::munmap(const_cast<std::uint8_t*>(data_), size_);
  data_ = nullptr;
}

namespace {

// The whole pages inside `bytes` (a page shared with a neighbour is left alone).
std::span<std::uint8_t> whole_pages(std::span<const std::uint8_t> bytes) {
  static const auto page = static_cast<std::uintptr_t>(::sysconf(_SC_PAGESIZE));
  const auto begin = (reinterpret_cast<std::uintptr_t>(bytes.data()) + page - 1) / page * page;
  const auto end = (reinterpret_cast<std::uintptr_t>(bytes.data()) + bytes.size()) / page * page;
  if (end <= begin) return {};
  return {reinterpret_cast<std::uint8_t*>(begin), end - begin};
}

}  // namespace

void prefetch_pages(std::span<const std::uint8_t> bytes) {
  const std::span<std::uint8_t> pages = whole_pages(bytes);
  if (!pages.empty()) ::madvise(pages.data(), pages.size(), MADV_POPULATE_READ);
}

void release_pages(std::span<const std::uint8_t> bytes) {
  const std::span<std::uint8_t> pages = whole_pages(bytes);
  if (!pages.empty()) ::madvise(pages.data(), pages.size(), MADV_DONTNEED);
}

}  // namespace quorvel::convert
