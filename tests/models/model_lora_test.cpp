// Loading a LoRA adapter file into a built model: the adapter header's
// checks and messages, the seven target records of every layer in the order
// K, V, Q, O, FFN 1, FFN 2, down, and the target readers' messages for a
// file that ends early.
#include <gtest/gtest.h>

#include <array>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "io/lora_header.h"
#include "layers/kv_cache_linear.h"
#include "models/model_base.h"
#include "models/transformer_layers.h"
#include "support/byte_writer.h"
#include "support/capture_stderr.h"

namespace quorvel {
namespace {

using testing::binary_stream;
using testing::ByteWriter;
using testing::CaptureStderr;

// Shapes that tell the targets apart: K and V 128 -> 128, Q 128 -> 256,
// O 256 -> 128, FFN 1 and FFN 2 128 -> 384, down 384 -> 128.
InitConfig small_config() {
  InitConfig c;
  c.arch_type = static_cast<std::int32_t>(ArchType::QWEN3);
  c.hidden_dim = 128;
  c.intermediate_dim = 384;
  c.num_layers = 32;
  c.num_heads = 2;
  c.num_kv_heads = 1;
  c.head_dim = 128;
  c.vocab_size = 32;
  c.max_position_embeddings = 4;
  c.tie_word_embeddings = true;
  return c;
}

struct Shape {
  std::uint64_t in;
  std::uint64_t out;
};

// The seven targets of a layer in record order.
std::vector<Shape> target_shapes(const InitConfig& c) {
  const std::uint64_t d = c.hidden_dim, kv = c.head_dim * c.num_kv_heads, q = c.head_dim * c.num_heads;
  const std::uint64_t I = c.intermediate_dim;
  return {{d, kv}, {d, kv}, {d, q}, {q, d}, {d, I}, {d, I}, {I, d}};
}

// A Qwen3 model file payload (all weights zero: only the layout matters
// here) and the RoPE tables, then the model built from them.
std::unique_ptr<ModelBase> build_model(const InitConfig& c) {
  const std::uint64_t d = c.hidden_dim, D = c.head_dim;
  std::uint64_t values = c.vocab_size * d + d;  // tied embedding, final norm
  std::uint64_t per_layer = 3 * d + 2 * D;      // the norms
  for (const Shape& s : target_shapes(c)) per_layer += s.in * s.out;
  values += c.num_layers * per_layer;
  auto tensors = binary_stream(std::string(values * 2, '\0'));
  auto rope = binary_stream(std::string(2 * c.max_position_embeddings * D * 4, '\0'));
  return create_model(tensors, rope, c);
}

// The adapter file up to the layer blocks.
ByteWriter adapter_header(std::uint32_t rank, std::uint32_t num_layers, std::int32_t targets_per_layer) {
  ByteWriter w;
  w.text("QVLA").u32(kLoraFileVersion).u32(0).u32(rank).u32(num_layers).i32(targets_per_layer);
  return w;
}

// A target record: the flag, then A and B when the flag is set.
void write_target(ByteWriter& w, bool has_lora, const Shape& shape, std::uint32_t rank) {
  w.u8(has_lora ? 1 : 0);
  if (!has_lora) return;
  for (std::uint64_t i = 0; i < (shape.in + shape.out) * rank; ++i) w.u16(0x3C00);  // 1/128
}

// Checks the 12-byte header as the engine does, then loads the rest.
void load(ModelBase& model, const std::string& file) {
  auto stream = binary_stream(file);
  ASSERT_TRUE(check_lora_header(stream, kLoraFileVersion));
  model.load_lora(stream);
}

// Runs the load, which must throw `message` after writing `stderr_lines`.
void expect_failure(ModelBase& model, const std::string& file, const std::string& message,
                    const std::vector<std::string>& stderr_lines = {}) {
  CaptureStderr captured;
  try {
    load(model, file);
    ADD_FAILURE() << "no exception; expected " << message;
  } catch (const std::runtime_error& error) {
    EXPECT_EQ(std::string(error.what()), message);
  }
  EXPECT_EQ(captured.lines(), stderr_lines);
}

using Q8_0Layer = layers::TransformerLayer<layers::Q8_0Projections>;

std::array<layers::AutoLinear*, 7> targets_of(const ModelBase& model, std::uint64_t layer) {
  return dynamic_cast<Q8_0Layer&>(*model.layers()[layer]).projections_in_lora_order();
}

class ModelLoraTest : public ::testing::Test {
 protected:
  InitConfig config = small_config();
  std::unique_ptr<ModelBase> model = build_model(config);
};

TEST_F(ModelLoraTest, HeaderProblemsAreRefusedBeforeAnyLayer) {
  expect_failure(*model, adapter_header(4, 32, 7).truncated(20), "Failed to read LoRA header");
  expect_failure(*model, adapter_header(4, 30, 7).bytes(), "LoRA num_layers mismatch: file has 30 but model has 32");
  expect_failure(*model, adapter_header(4, 32, 6).bytes(), "Unsupported LoRA targets_per_layer: 6 (expected 7)");
  expect_failure(*model, adapter_header(4, 32, -7).bytes(), "Unsupported LoRA targets_per_layer: -7 (expected 7)");
}

TEST_F(ModelLoraTest, LayersWithoutAdaptersTakeSevenBytesEach) {
  ByteWriter w = adapter_header(4, 32, 7);
  for (std::uint64_t i = 0; i < 32 * 7; ++i) w.u8(0);
  const std::string file = w.bytes();
  auto stream = binary_stream(file + "trailing bytes");
  CaptureStderr captured;
  ASSERT_TRUE(check_lora_header(stream, kLoraFileVersion));
  model->load_lora(stream);
  EXPECT_EQ(static_cast<std::uint64_t>(stream.tellg()), 24u + 32u * 7u);
  EXPECT_EQ(captured.lines(), std::vector<std::string>{"  LoRA rank: 4, layers: 32, targets/layer: 7"});
  for (std::uint64_t layer = 0; layer < 32; ++layer) {
    for (const layers::AutoLinear* target : targets_of(*model, layer)) EXPECT_FALSE(target->has_lora());
  }
}

// Layer i carries an adapter on target i % 7 only: each record must land on
// the projection of its place in the order, with that projection's shape.
TEST_F(ModelLoraTest, RecordsGoToKVQOFfn1Ffn2DownInThatOrder) {
  const std::vector<Shape> shapes = target_shapes(config);
  ByteWriter w = adapter_header(2, 32, 7);
  for (std::uint64_t layer = 0; layer < 32; ++layer) {
    for (std::uint64_t t = 0; t < 7; ++t) write_target(w, t == layer % 7, shapes[t], 2);
  }
  CaptureStderr captured;
  load(*model, w.bytes());
  for (std::uint64_t layer = 0; layer < 32; ++layer) {
    const auto targets = targets_of(*model, layer);
    EXPECT_NE(dynamic_cast<layers::KQ8_0Linear*>(targets[0]), nullptr);
    EXPECT_NE(dynamic_cast<layers::VQ8_0Linear*>(targets[1]), nullptr);
    for (std::uint64_t t = 0; t < 7; ++t) {
      EXPECT_EQ(targets[t]->in_shape(), shapes[t].in) << "target " << t;
      EXPECT_EQ(targets[t]->out_shape(), shapes[t].out) << "target " << t;
      EXPECT_EQ(targets[t]->has_lora(), t == layer % 7) << "layer " << layer << ", target " << t;
    }
  }
  EXPECT_EQ(captured.lines(), std::vector<std::string>{"  LoRA rank: 2, layers: 32, targets/layer: 7"});
}

// A file that ends early fails with the message of the target reader that
// ran short (the per-layer check after it never sees a failed stream).
TEST_F(ModelLoraTest, AFileCutShortFailsWithTheTargetReadersMessage) {
  const std::vector<Shape> shapes = target_shapes(config);
  ByteWriter w = adapter_header(2, 32, 7);
  for (std::uint64_t t = 0; t < 7; ++t) write_target(w, false, shapes[t], 2);  // layer 0
  const std::size_t layer_1 = w.size();
  write_target(w, true, shapes[0], 2);                                        // layer 1, K
  const std::size_t a_bytes = shapes[0].in * 2 * 2;
  const std::vector<std::string> rank_line{"  LoRA rank: 2, layers: 32, targets/layer: 7"};
  expect_failure(*model, w.truncated(layer_1), "Failed to read LoRA has_lora flag", rank_line);
  expect_failure(*build_model(config), w.truncated(layer_1 + 1 + a_bytes / 2), "Failed to read LoRA A matrix",
                 rank_line);
  expect_failure(*build_model(config), w.truncated(layer_1 + 1 + a_bytes + 5), "Failed to read LoRA B matrix",
                 rank_line);
}

TEST_F(ModelLoraTest, AModelWithoutLayersReadsOnlyTheHeader) {
  config.num_layers = 0;
  auto empty = build_model(config);
  const std::string file = adapter_header(8, 0, 7).bytes();
  auto stream = binary_stream(file + "x");
  CaptureStderr captured;
  ASSERT_TRUE(check_lora_header(stream, kLoraFileVersion));
  empty->load_lora(stream);
  EXPECT_EQ(static_cast<std::uint64_t>(stream.tellg()), file.size());
}

}  // namespace
}  // namespace quorvel
