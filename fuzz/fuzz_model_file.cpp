// Model construction from a fuzzed "qmodel.tensors" under a fuzzed init
// config, in start-up's order, then (when the input asks) one forward pass
// and one greedy sample over a short prompt. Input layout: see
// decode_model_config in fuzz_support.h.
#include <sanitizer/allocator_interface.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <sstream>
#include <string>
#include <vector>

#include "engine/init_config_parser.h"
#include "engine/model_runner.h"
#include "fuzz_support.h"
#include "io/model_header.h"
#include "io/rope_header.h"
#include "models/model_base.h"
#include "models/model_memory.h"
#include "models/model_requirements.h"
#include "runtime/thread_pool.h"

using namespace quorvel;

namespace {

// QUORVEL_FUZZ_CHECK_ESTIMATE=1: a model that holds more heap after loading
// (and its runner's buffers) than its estimate is a finding too.
bool check_estimate = false;
constexpr std::uint64_t kEstimateSlack = 256 << 10;  // containers, strings, per-object bookkeeping

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::quiet_engine_messages();
  fuzz::set_fuzz_threads();
  const char* text = std::getenv("QUORVEL_FUZZ_CHECK_ESTIMATE");
  check_estimate = text != nullptr && std::string(text) == "1";
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::ByteReader in(data, size);
  const fuzz::ModelInput input = fuzz::decode_model_config(in);
  const InitConfig& config = input.config;  // the model borrows it
  std::string rope_bytes;
  if (input.rope_from_input) rope_bytes = in.take(in.u32());
  std::istringstream tensors(in.rest());

  if (unsupported_format_message(config)) return 0;
  ModelFileInfo info;
  if (!check_model_header(tensors, config.arch_type, &info)) return 0;
  if (!input.rope_from_input) {
    // Only tables that a model under the cap could hold are written out.
    if (size_mul(config.head_dim, config.max_position_embeddings, 8) > fuzz::kMemoryCap) return 0;
    rope_bytes = fuzz::synthesize_rope(config.head_dim, config.max_position_embeddings);
  }
  std::istringstream rope(rope_bytes);
  if (!check_rope_header(rope, kRopeCacheVersion)) return 0;
  if (static_cast<ArchType>(config.arch_type) == ArchType::QWEN3_5 && (info.has_section_2 || info.has_section_3)) {
    return 0;  // the Qwen3.5 sections start-up refuses
  }
  if (const auto refusal = start_up_refusal(config, fuzz::kMemoryCap)) {
    fuzz::note(*refusal);
    return 0;
  }
  const ModelMemory memory = estimate_model_memory(config, thread_count());
  if (memory.total() > fuzz::kMemoryCap) {
    fuzz::note("over the cap: " + std::to_string(memory.total()) + " bytes");
    return 0;
  }

  const std::size_t heap_before = __sanitizer_get_current_allocated_bytes();
  try {
    std::unique_ptr<ModelBase> model = create_model(tensors, rope, config);
    fuzz::note("model built");
    // The request loop never runs a prompt that fills the context.
    if (input.prompt_tokens == 0 || config.vocab_size == 0 || input.prompt_tokens >= config.max_position_embeddings) {
      return 0;
    }
    ModelRunner runner(*model);
    if (check_estimate && __sanitizer_get_current_allocated_bytes() - heap_before > memory.total() + kEstimateSlack) {
      __builtin_trap();
    }
    std::vector<std::int64_t> prompt(input.prompt_tokens);
    for (std::size_t i = 0; i < prompt.size(); ++i) prompt[i] = static_cast<std::int64_t>(i % config.vocab_size);
    runner.set_position(0);
    runner.forward(prompt.data(), prompt.size());
    SamplingParams greedy;
    greedy.temperature = 0.0f;
    fuzz::note("sampled " + std::to_string(runner.sample(prompt.data(), prompt.size(), greedy)));
  } catch (const std::exception& e) {
    fuzz::note(std::string("refused: ") + e.what());  // a file or shape that building refuses
  }
  return 0;
}
