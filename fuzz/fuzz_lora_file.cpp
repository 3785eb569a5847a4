// LoRA adapter loading: a tiny model of every architecture, written once with
// the tools library and rebuilt from memory for each input, then the adapter
// header check, load_lora and, when the adapter loads, one forward pass
// through it. Input: byte 0 picks lora_quant (none, int8, q4_0, q5_0, q6_k,
// q8_0), byte 1 the architecture (1 + b % 6); the rest is "qmodel.lora".
#include <array>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <sstream>
#include <string>
#include <vector>

#include "config/init_config.h"
#include "engine/model_runner.h"
#include "fuzz_support.h"
#include "io/lora_header.h"
#include "models/model_base.h"

using namespace quorvel;

namespace {

// In the order of the input byte, as make_seeds writes it.
constexpr std::array<QuantFormat, 6> kLoraFormats = {QuantFormat::NONE, QuantFormat::INT8, QuantFormat::Q4_0,
                                                     QuantFormat::Q5_0, QuantFormat::Q6_K, QuantFormat::Q8_0};
std::vector<fuzz::ModelFiles> models;  // index arch - 1

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::quiet_engine_messages();
  fuzz::set_fuzz_threads();
  for (int arch = 1; arch <= 6; ++arch) models.push_back(fuzz::make_model_files(fuzz::tiny_model_args(arch)));
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::ByteReader in(data, size);
  const QuantFormat lora_quant = kLoraFormats[in.byte() % kLoraFormats.size()];
  const fuzz::ModelFiles& files = models[in.byte() % models.size()];
  InitConfig config = files.config;
  config.lora_quant = lora_quant;
  std::istringstream lora(in.rest());
  try {
    const std::unique_ptr<ModelBase> model = fuzz::load_model(files, config);
    if (!check_lora_header(lora, kLoraFileVersion)) return 0;
    model->load_lora(lora);
    ModelRunner runner(*model);
    const std::int64_t prompt[] = {1, 5, 7};
    runner.set_position(0);
    runner.forward(prompt, 3);
    SamplingParams greedy;
    greedy.temperature = 0.0f;
    fuzz::note("sampled " + std::to_string(runner.sample(prompt, 3, greedy)));
  } catch (const std::exception& e) {
    fuzz::note(std::string("refused: ") + e.what());  // the adapter loader's own refusals
  }
  return 0;
}
