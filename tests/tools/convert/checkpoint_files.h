// Writers for the checkpoint formats the converter reads, for tests that
// build tiny checkpoints themselves: safetensors files (JSON header, raw
// tensor bytes) and GGUF files (typed metadata, tensor infos, aligned data),
// plus the element encodings (f32, f16, bf16) their tensors hold.
#pragma once

#include <bit>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "support/byte_writer.h"

namespace quorvel::convert::testing {

// One tensor as a checkpoint stores it: shape outermost first, raw bytes.
struct TensorBytes {
  std::string name;
  std::string dtype;  // safetensors dtype ("BF16", "U8", ...); ignored by GGUF
  std::vector<std::uint64_t> shape;
  std::string bytes;
  std::uint32_t gguf_type = 0;  // GGUF type id; ignored by safetensors
};

inline void write_bytes(const std::filesystem::path& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

// IEEE half of a float, rounded to nearest even (normal and subnormal
// results; overflow gives infinity).
inline std::uint16_t float_to_half(float value) {
  const std::uint32_t bits = std::bit_cast<std::uint32_t>(value);
  const std::uint16_t sign = static_cast<std::uint16_t>((bits >> 16) & 0x8000u);
  const float magnitude = std::fabs(value);
  if (std::isnan(value)) return static_cast<std::uint16_t>(sign | 0x7E00u);
  if (magnitude >= 65520.0f) return static_cast<std::uint16_t>(sign | 0x7C00u);
  if (magnitude < 0x1p-14f) {  // subnormal: a multiple of 2^-24
    return static_cast<std::uint16_t>(sign | static_cast<std::uint16_t>(std::nearbyint(magnitude * 0x1p24f)));
  }
  const std::uint32_t m = bits & 0x7FFFFFFFu;
  const std::uint32_t rounded = m + 0x0FFFu + ((m >> 13) & 1u);
  return static_cast<std::uint16_t>(sign | (((rounded >> 13) - (112u << 10)) & 0x7FFFu));
}

inline std::uint16_t float_to_bf16(float value) {
  const std::uint32_t bits = std::bit_cast<std::uint32_t>(value);
  return static_cast<std::uint16_t>((bits + 0x7FFFu + ((bits >> 16) & 1u)) >> 16);
}

inline std::string f32_bytes(const std::vector<float>& values) {
  quorvel::testing::ByteWriter out;
  for (const float v : values) out.f32(v);
  return out.bytes();
}
inline std::string f16_bytes(const std::vector<float>& values) {
  quorvel::testing::ByteWriter out;
  for (const float v : values) out.u16(float_to_half(v));
  return out.bytes();
}
inline std::string bf16_bytes(const std::vector<float>& values) {
  quorvel::testing::ByteWriter out;
  for (const float v : values) out.u16(float_to_bf16(v));
  return out.bytes();
}

// A safetensors file: the header lists the tensors in the given order with
// consecutive byte ranges.
inline std::string safetensors_bytes(const std::vector<TensorBytes>& tensors,
                                     const nlohmann::json& metadata = nullptr) {
  nlohmann::json header = nlohmann::json::object();
  if (!metadata.is_null()) header["__metadata__"] = metadata;
  std::string data;
  for (const TensorBytes& t : tensors) {
    header[t.name] = {
        {"dtype", t.dtype}, {"shape", t.shape}, {"data_offsets", {data.size(), data.size() + t.bytes.size()}}};
    data += t.bytes;
  }
  const std::string text = header.dump();
  quorvel::testing::ByteWriter out;
  out.u64(text.size()).text(text).text(data);
  return out.bytes();
}

// GGUF value type ids.
enum GgufType : std::uint32_t {
  GGUF_U8 = 0, GGUF_I8, GGUF_U16, GGUF_I16, GGUF_U32, GGUF_I32, GGUF_F32, GGUF_BOOL, GGUF_STRING, GGUF_ARRAY,
  GGUF_U64, GGUF_I64, GGUF_F64,
};

// GGUF tensor type ids.
enum GgufTensorType : std::uint32_t {
  GGML_F32 = 0, GGML_F16 = 1, GGML_Q8_0 = 8, GGML_BF16 = 30, GGML_TQ2_0 = 35, GGML_I2_S = 36, GGML_Q1_0 = 41,
  GGML_Q2_0 = 42,
};

// Builds a GGUF file: key-values in the order added, then the tensor infos,
// then the data block at `alignment`, each tensor at an aligned offset.
class GgufBuilder {
 public:
  GgufBuilder& u32(const std::string& key, std::uint32_t value) { return entry(key, GGUF_U32).u32(value), *this; }
  GgufBuilder& u64(const std::string& key, std::uint64_t value) { return entry(key, GGUF_U64).u64(value), *this; }
  GgufBuilder& f32(const std::string& key, float value) { return entry(key, GGUF_F32).f32(value), *this; }
  GgufBuilder& boolean(const std::string& key, bool value) { return entry(key, GGUF_BOOL).u8(value), *this; }
  GgufBuilder& str(const std::string& key, const std::string& value) {
    string(entry(key, GGUF_STRING), value);
    return *this;
  }
  GgufBuilder& strings(const std::string& key, const std::vector<std::string>& values) {
    auto& out = entry(key, GGUF_ARRAY).u32(GGUF_STRING).u64(values.size());
    for (const std::string& v : values) string(out, v);
    return *this;
  }
  GgufBuilder& i32s(const std::string& key, const std::vector<std::int32_t>& values) {
    auto& out = entry(key, GGUF_ARRAY).u32(GGUF_I32).u64(values.size());
    for (const std::int32_t v : values) out.i32(v);
    return *this;
  }
  GgufBuilder& f32s(const std::string& key, const std::vector<float>& values) {
    auto& out = entry(key, GGUF_ARRAY).u32(GGUF_F32).u64(values.size());
    for (const float v : values) out.f32(v);
    return *this;
  }
  // A value of any type id, stored as `value` (which may be broken on purpose).
  GgufBuilder& raw(const std::string& key, std::uint32_t type, const std::string& value) {
    entry(key, static_cast<GgufType>(type)).text(value);
    return *this;
  }
  GgufBuilder& tensor(TensorBytes t) {
    tensors_.push_back(std::move(t));
    return *this;
  }

  std::string bytes(std::uint32_t version = 3, std::uint64_t alignment = 32) const {
    quorvel::testing::ByteWriter out;
    out.text("GGUF").u32(version).u64(tensors_.size()).u64(count_).text(kv_.bytes());
    std::uint64_t offset = 0;
    std::vector<std::uint64_t> offsets;
    for (const TensorBytes& t : tensors_) {
      string(out, t.name);
      out.u32(static_cast<std::uint32_t>(t.shape.size()));
      for (auto extent = t.shape.rbegin(); extent != t.shape.rend(); ++extent) out.u64(*extent);  // innermost first
      out.u32(t.gguf_type).u64(offset);
      offsets.push_back(offset);
      offset = (offset + t.bytes.size() + alignment - 1) / alignment * alignment;
    }
    std::string file = out.bytes();
    file.resize((file.size() + alignment - 1) / alignment * alignment, '\0');
    const std::size_t data_start = file.size();
    for (std::size_t i = 0; i < tensors_.size(); ++i) {
      file.resize(data_start + offsets[i], '\0');
      file += tensors_[i].bytes;
    }
    return file;
  }

 private:
  quorvel::testing::ByteWriter& entry(const std::string& key, GgufType type) {
    ++count_;
    string(kv_, key);
    return kv_.u32(type);
  }
  static void string(quorvel::testing::ByteWriter& out, const std::string& text) { out.u64(text.size()).text(text); }

  quorvel::testing::ByteWriter kv_;
  std::uint64_t count_ = 0;
  std::vector<TensorBytes> tensors_;
};

}  // namespace quorvel::convert::testing
