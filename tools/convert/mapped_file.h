// A whole file mapped read-only into memory: checkpoints are read in place,
// never copied, so converting a model does not hold it twice.
#pragma once

#include <cstdint>
#include <filesystem>
#include <span>

namespace quorvel::convert {

class MappedFile {
 public:
  // Throws ConvertError naming the file when it cannot be opened or mapped.
  explicit MappedFile(const std::filesystem::path& path);
  ~MappedFile();
  MappedFile(MappedFile&& other) noexcept;
  MappedFile& operator=(MappedFile&& other) noexcept;
  MappedFile(const MappedFile&) = delete;
  MappedFile& operator=(const MappedFile&) = delete;

  std::span<const std::uint8_t> bytes() const { return {data_, size_}; }
  const std::filesystem::path& path() const { return path_; }

 private:
  void unmap() noexcept;

  std::filesystem::path path_;
  const std::uint8_t* data_ = nullptr;
  std::size_t size_ = 0;
};

// Advice on a stretch of a mapped file, for reading it once: fault it in
// with one call before reading, and give its pages back once read (they
// stay in the page cache), so that converting a model holds one tensor of
// its input at a time instead of all of it. Both are hints; errors are
// ignored.
void prefetch_pages(std::span<const std::uint8_t> bytes);
void release_pages(std::span<const std::uint8_t> bytes);

}  // namespace quorvel::convert
