// Reads GGUF files: magic, version, the key-value metadata, the tensor
// infos, then the aligned data block. Counts and lengths from the file are
// checked against the bytes that remain before anything is allocated.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "tools/convert/mapped_file.h"
#include "tools/convert/source_tensor.h"

namespace quorvel::convert {

// A metadata value. Integer types widen to u64 (unsigned) or i64 (signed),
// floats to double; arrays keep their element kind.
using GgufValue = std::variant<std::uint64_t, std::int64_t, double, bool, std::string, std::vector<std::string>,
                               std::vector<std::int64_t>, std::vector<double>>;

class GgufMetadata {
 public:
  explicit GgufMetadata(std::filesystem::path file) : file_(std::move(file)) {}

  // Throws ConvertError when the key is already present.
  void add(std::string key, GgufValue value);
  const GgufValue* find(std::string_view key) const;

  // nullopt when the key is absent; ConvertError naming the key when its
  // value has another kind (or a negative integer for get_uint).
  std::optional<std::uint64_t> get_uint(std::string_view key) const;
  std::optional<double> get_float(std::string_view key) const;  // floats and integers
  std::optional<bool> get_bool(std::string_view key) const;
  std::optional<std::string> get_string(std::string_view key) const;
  // nullptr when absent; ConvertError when the value is not such an array.
  const std::vector<std::string>* get_strings(std::string_view key) const;
  const std::vector<std::int64_t>* get_ints(std::string_view key) const;  // signed and unsigned integer arrays

  const std::filesystem::path& file() const { return file_; }
  auto begin() const { return values_.begin(); }
  auto end() const { return values_.end(); }

 private:
  std::filesystem::path file_;
  std::map<std::string, GgufValue, std::less<>> values_;
};

struct GgufContents {
  std::uint32_t version = 0;
  GgufMetadata metadata;
  TensorSet tensors;  // shapes outermost first (the file lists them innermost first)
};

// Throws ConvertError naming `file` (and the key or tensor at fault) for a
// bad magic, a version other than 2 or 3, counts or lengths beyond the file,
// unknown value types, nested arrays, a bad alignment, tensor data outside
// the data block or not at an aligned offset, and duplicate names. Tensors
// of types the converter cannot read are listed as UNSUPPORTED.
GgufContents parse_gguf(std::span<const std::uint8_t> bytes, const std::filesystem::path& file);

struct GgufCheckpoint {
  MappedFile file;
  GgufContents contents;
};
GgufCheckpoint read_gguf(const std::filesystem::path& path);

}  // namespace quorvel::convert
