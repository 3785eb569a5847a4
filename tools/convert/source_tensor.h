// A tensor as a checkpoint stores it: its name, its element type, its shape
// and its bytes inside a mapped file. Both checkpoint readers produce these,
// with the byte count already checked against the type and the shape.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace quorvel::convert {

// The element types the converter can read. Everything else is UNSUPPORTED:
// it is still listed (so that a refusal can name it) but has no bytes.
enum class SourceType : std::uint8_t {
  F32,
  F16,
  BF16,
  U8,  // safetensors: packed ternary codes, four rows a byte
  I8,
  Q8_0,   // GGUF: 32 values, f16 d then 32 int8
  Q1_0,   // GGUF: 128 values, f16 d then 16 bytes of signs, least significant bit first
  Q2_0,   // GGUF: 64 values, f16 d then 16 bytes of 2-bit codes
  TQ2_0,  // GGUF: 256 values, 64 bytes of 2-bit codes then f16 d
  I2_S,   // GGUF: a whole matrix of 2-bit codes in 128-weight groups, then a 32-byte scale trailer
  UNSUPPORTED,
};

struct SourceTensor {
  std::string name;
  SourceType type = SourceType::UNSUPPORTED;
  std::string type_name;               // the file's own name for the type ("BF16", "Q4_K", "type 12"), for messages
  std::vector<std::uint64_t> shape;    // outermost first: `out` rows x `in` columns is {out, in}
  std::span<const std::uint8_t> data;  // exactly the bytes of type and shape; empty when UNSUPPORTED
  std::filesystem::path file;          // where it lives, for messages

  std::uint64_t elements() const;  // product of the extents (1 for a scalar)
  std::uint64_t cols() const;      // the innermost extent (1 for a scalar)
  std::uint64_t rows() const;      // elements() / cols()
};

// How a type stores the values of a row: `values` to a block of `bytes`
// bytes, plus `tensor_bytes` once per tensor (I2_S's scale trailer). Plain
// element types are blocks of one value; UNSUPPORTED has no layout (0).
struct SourceStorage {
  std::uint64_t values = 0;
  std::uint64_t bytes = 0;
  std::uint64_t tensor_bytes = 0;
};

constexpr SourceStorage source_storage(SourceType type) {
  switch (type) {
    case SourceType::F32: return {1, 4};
    case SourceType::F16:
    case SourceType::BF16: return {1, 2};
    case SourceType::U8:
    case SourceType::I8: return {1, 1};
    case SourceType::Q8_0: return {32, 34};     // f16 d, 32 int8
    case SourceType::Q1_0: return {128, 18};    // f16 d, 16 bytes of signs
    case SourceType::Q2_0: return {64, 18};     // f16 d, 16 bytes of codes
    case SourceType::TQ2_0: return {256, 66};   // 64 bytes of codes, f16 d
    case SourceType::I2_S: return {128, 32, 32};  // 128-weight groups of 32 bytes, then a 32-byte scale trailer
    case SourceType::UNSUPPORTED: break;
  }
  return {};
}

// Bytes that `shape` (outermost first) takes in `type`, or nullopt when the
// type is UNSUPPORTED, the innermost extent is not a whole number of the
// type's blocks, or the size overflows 64 bits.
std::optional<std::uint64_t> source_byte_size(SourceType type, std::span<const std::uint64_t> shape);

// The tensors of one checkpoint (all its shards), by name.
class TensorSet {
 public:
  // Throws ConvertError naming both files when the name is already present.
  void add(SourceTensor tensor);
  const SourceTensor* find(std::string_view name) const;
  std::size_t size() const { return tensors_.size(); }
  auto begin() const { return tensors_.begin(); }
  auto end() const { return tensors_.end(); }

 private:
  std::map<std::string, SourceTensor, std::less<>> tensors_;
};

}  // namespace quorvel::convert
