// A model file written by the model tool, taken apart into its payload
// objects, and the same weights re-encoded in the published checkpoint forms
// (safetensors with Hugging Face names, GGUF with its own names and block
// types). Converting such a checkpoint must give back the model file it came
// from, byte for byte, wherever the form holds the weights exactly.
#pragma once

#include <cmath>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "config/init_config.h"
#include "engine/init_config_parser.h"
#include "runtime/bf16.h"
#include "runtime/formats/q1_0.h"
#include "runtime/formats/q1_58.h"
#include "runtime/formats/ternary.h"
#include "tools/convert/checkpoint_files.h"
#include "tools/lib/tensor_layout.h"

namespace quorvel::convert::testing {

using tools::LayerSlot;
using tools::WeightFormat;

constexpr std::size_t kModelHeaderBytes = 16;  // magic, version 4, arch, zero sections

// One object of the payload, in file order.
struct PayloadObject {
  enum Kind { EMBEDDING, OUTPUT, FINAL_NORM, LAYER_WEIGHT, LAYER_BIAS } kind = EMBEDDING;
  std::uint64_t layer = 0;
  LayerSlot slot = LayerSlot::ATTENTION_NORM;
  WeightFormat format = WeightFormat::BF16;
  std::uint64_t rows = 1, cols = 0;
  std::size_t offset = 0;  // in the model file
  std::string bytes;

  bool is_norm = false;  // a layer norm

  bool is_vector() const { return kind == FINAL_NORM || kind == LAYER_BIAS || is_norm; }
};

inline std::uint64_t payload_bytes(WeightFormat format, std::uint64_t rows, std::uint64_t cols) {
  switch (format) {
    case WeightFormat::BF16:
      return rows * cols * 2;
    case WeightFormat::TERNARY:
      return 8 + rows * cols / 4;
    case WeightFormat::Q1_0:
      return rows * cols / 128 * sizeof(formats::BlockQ1_0);
    case WeightFormat::Q1_58:
      return rows * cols / 128 * sizeof(formats::BlockQ1_58);
  }
  return 0;
}

inline PayloadObject payload_object(PayloadObject::Kind kind, std::uint64_t layer, LayerSlot slot, WeightFormat format,
                                    std::uint64_t rows, std::uint64_t cols) {
  PayloadObject object;
  object.kind = kind;
  object.layer = layer;
  object.slot = slot;
  object.format = format;
  object.rows = rows;
  object.cols = cols;
  return object;
}

// The model file's objects in the order the architecture reads them.
inline std::vector<PayloadObject> split_payload(const InitConfig& c, const std::string& file) {
  std::vector<PayloadObject> objects;
  std::size_t at = kModelHeaderBytes;
  auto take = [&](PayloadObject object) {
    object.offset = at;
    object.bytes = file.substr(at, payload_bytes(object.format, object.rows, object.cols));
    at += object.bytes.size();
    objects.push_back(object);
  };
  const WeightFormat table = tools::table_format(c.arch_type);
  const LayerSlot none = LayerSlot::ATTENTION_NORM;
  take(payload_object(PayloadObject::EMBEDDING, 0, none, table, c.vocab_size, c.hidden_dim));
  if (!c.tie_word_embeddings) take(payload_object(PayloadObject::OUTPUT, 0, none, table, c.vocab_size, c.hidden_dim));
  take(payload_object(PayloadObject::FINAL_NORM, 0, none, WeightFormat::BF16, 1, c.hidden_dim));
  for (std::uint64_t layer = 0; layer < c.num_layers; ++layer) {
    for (const tools::LayerTensor& t : tools::layer_tensors(c)) {
      const bool norm = t.role == tools::TensorRole::NORM;
      PayloadObject weight =
          payload_object(PayloadObject::LAYER_WEIGHT, layer, t.slot,
                         norm ? WeightFormat::BF16 : tools::projection_format(c.arch_type), norm ? 1 : t.out_width,
                         t.in_width);
      weight.is_norm = norm;
      take(weight);
      if (t.has_bias) {
        take(payload_object(PayloadObject::LAYER_BIAS, layer, t.slot, WeightFormat::BF16, 1, t.out_width));
      }
    }
  }
  EXPECT_EQ(at, file.size()) << "the model file holds more or less than its objects";
  return objects;
}

// A model directory's init config and its model file, taken apart.
struct ModelParts {
  InitConfig config;
  std::string file;
  std::vector<PayloadObject> objects;
};

inline ModelParts read_model_parts(const std::filesystem::path& dir) {
  ModelParts parts;
  std::ifstream init(dir / "init.txt");
  parts.config = read_init_config(init);
  std::ifstream model(dir / "qmodel.tensors", std::ios::binary);
  parts.file.assign(std::istreambuf_iterator<char>(model), std::istreambuf_iterator<char>());
  parts.objects = split_payload(parts.config, parts.file);
  return parts;
}

inline double ternary_gamma(const PayloadObject& o) {
  double gamma = 0.0;
  std::memcpy(&gamma, o.bytes.data(), sizeof gamma);
  return gamma;
}

// Every weight's code (0..2), row-major, of a ternary or q1.58 object.
inline std::vector<std::uint8_t> codes_of(const PayloadObject& o) {
  std::vector<std::uint8_t> codes(o.rows * o.cols);
  const bool blocks = o.format == WeightFormat::Q1_58;
  const auto* base = reinterpret_cast<const std::uint8_t*>(o.bytes.data()) + (blocks ? 0 : 8);
  for (std::uint64_t i = 0; i < codes.size(); ++i) {
    const std::uint64_t group = i / 128;
    const std::uint8_t* at = base + group * (blocks ? sizeof(formats::BlockQ1_58) : 32);
    codes[i] = static_cast<std::uint8_t>(formats::ternary_code(at, i % 128));
  }
  return codes;
}

// The scale of each 128-weight block of a q1_0_128 or q1.58 object.
inline std::vector<float> block_scales(const PayloadObject& o) {
  const std::size_t block = o.format == WeightFormat::Q1_0 ? sizeof(formats::BlockQ1_0) : sizeof(formats::BlockQ1_58);
  std::vector<float> scales(o.rows * o.cols / 128);
  for (std::size_t b = 0; b < scales.size(); ++b) {
    bf16 d{};
    std::memcpy(&d, o.bytes.data() + b * block + block - 2, 2);
    scales[b] = widen(d);
  }
  return scales;
}

// Every weight's real value, row-major.
inline std::vector<float> real_values(const PayloadObject& o) {
  std::vector<float> values(o.rows * o.cols);
  if (o.format == WeightFormat::BF16) {
    for (std::size_t i = 0; i < values.size(); ++i) {
      bf16 v{};
      std::memcpy(&v, o.bytes.data() + 2 * i, 2);
      values[i] = widen(v);
    }
  } else if (o.format == WeightFormat::Q1_0) {
    const std::vector<float> scales = block_scales(o);
    const auto* blocks = reinterpret_cast<const formats::BlockQ1_0*>(o.bytes.data());
    for (std::size_t i = 0; i < values.size(); ++i) {
      values[i] = static_cast<float>(formats::q1_0_sign(blocks[i / 128], i % 128)) * scales[i / 128];
    }
  } else {
    const std::vector<std::uint8_t> codes = codes_of(o);
    const std::vector<float> scales = o.format == WeightFormat::Q1_58 ? block_scales(o) : std::vector<float>{};
    const auto gamma = static_cast<float>(o.format == WeightFormat::TERNARY ? ternary_gamma(o) : 0.0);
    for (std::size_t i = 0; i < values.size(); ++i) {
      values[i] = static_cast<float>(codes[i] - 1) * (scales.empty() ? gamma : scales[i / 128]);
    }
  }
  return values;
}

// Rounds every ternary gamma of the model file to a power of two, so that
// its reciprocal, its f32, bf16 and f16 forms are all exact.
inline void round_gammas_to_powers_of_two(std::string& file, std::vector<PayloadObject>& objects) {
  for (PayloadObject& o : objects) {
    if (o.format != WeightFormat::TERNARY) continue;
    const double gamma = std::exp2(std::round(std::log2(ternary_gamma(o))));
    std::memcpy(o.bytes.data(), &gamma, sizeof gamma);
    std::memcpy(file.data() + o.offset, &gamma, sizeof gamma);
  }
}

}  // namespace quorvel::convert::testing
