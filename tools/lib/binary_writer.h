// A buffered little-endian file writer for the model tools. Every file the
// engine reads is a plain little-endian byte stream, so values are written
// as their in-memory bytes; the build refuses big-endian hosts outright.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <span>
#include <type_traits>
#include <vector>

namespace quorvel::tools {

static_assert(std::endian::native == std::endian::little, "the file formats are little-endian");

class BinaryWriter {
 public:
  // Creates (or truncates) the file; throws std::runtime_error when it cannot.
  explicit BinaryWriter(const std::filesystem::path& path);

  void write_bytes(const void* data, std::size_t size);

  template <typename T>
  void write_value(const T& value) {
    static_assert(std::is_trivially_copyable_v<T>);
    write_bytes(&value, sizeof(T));
  }

  template <typename T>
  void write_values(std::span<const T> values) {
    static_assert(std::is_trivially_copyable_v<T>);
    write_bytes(values.data(), values.size_bytes());
  }

  // Flushes and closes; throws std::runtime_error when the data did not reach
  // the file (a full disk shows up here rather than as a short model file).
  void finish();

  std::uint64_t bytes_written() const { return bytes_written_; }

 private:
  void flush();
  void write_to_file(const char* data, std::size_t size);

  std::filesystem::path path_;
  std::vector<char> buffer_;
  std::size_t buffered_ = 0;
  std::ofstream out_;
  std::uint64_t bytes_written_ = 0;
};

}  // namespace quorvel::tools
