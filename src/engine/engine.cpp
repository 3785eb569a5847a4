#include "engine/engine.h"

#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <optional>
#include <string>
#include <system_error>

#include "engine/init_config_parser.h"
#include "engine/model_runner.h"
#include "engine/process_entry.h"
#include "engine/request_loop.h"
#include "io/lora_header.h"
#include "io/model_header.h"
#include "io/rope_header.h"
#include "models/model_base.h"
#include "models/model_requirements.h"
#include "runtime/kernel_sets.h"
#include "runtime/physical_memory.h"
#include "runtime/thread_pool.h"
#include "runtime/usable_cpus.h"

namespace quorvel {
namespace {

// Start-up failures print their message and end with status 1.
int fail(const std::string& message) {
  std::cerr << message << std::endl;
  return 1;
}

// Qwen3.5 files may carry sections that this engine cannot run.
std::optional<std::string> qwen3_5_refusal(const InitConfig& config, const ModelFileInfo& info) {
  if (static_cast<ArchType>(config.arch_type) != ArchType::QWEN3_5) return std::nullopt;
  if (info.has_section_2) {
    return "Error: Qwen3.5 visual sections are present in qmodel.tensors, but multimodal runtime support is not "
           "implemented yet.";
  }
  if (info.has_section_3) {
    return "Error: Qwen3.5 MTP sections are present in qmodel.tensors, but MTP runtime support is not "
           "implemented yet.";
  }
  return std::nullopt;
}

// The optional adapter in config.lora_dir. A missing "qmodel.lora" is no
// adapter and no message; returns false after an open or header failure,
// which ends start-up. The adapter's own loading errors are thrown.
bool load_lora_adapter(ModelBase& model, const std::string& lora_dir) {
  const std::filesystem::path path = std::filesystem::path(lora_dir) / "qmodel.lora";
  std::error_code ignored;  // any other status problem shows up as a failed open
  if (std::filesystem::status(path, ignored).type() == std::filesystem::file_type::not_found) return true;
  std::cerr << "Loading LoRA adapter..." << std::endl;
  std::ifstream lora(path, std::ios::binary);
  if (!lora.is_open()) {
    std::cerr << "Error: Could not open " << path << std::endl;
    return false;
  }
  if (!check_lora_header(lora, kLoraFileVersion)) return false;
  model.load_lora(lora);
  std::cerr << "LoRA adapter loaded.\n" << std::endl;
  return true;
}

}  // namespace

int run_engine(int argc, char** argv) {
  use_binary_standard_streams();
  // Reading a block must never flush standard output.
  std::ios::sync_with_stdio(false);
  std::cin.tie(nullptr);

  const CommandLine command_line = read_command_line(argc, argv);
  if (command_line.arguments.size() != 1) return fail("Usage: " + command_line.program + " <Model Directory>");

  InitConfig config;
  try {
    config = read_init_config(std::cin);
  } catch (const std::exception& e) {
    return fail(std::string("Error parsing init config: ") + e.what());
  }
  if (auto refusal = unsupported_format_message(config)) return fail(*refusal);

  const std::filesystem::path& directory = command_line.arguments[0];
  std::ifstream tensors(directory / "qmodel.tensors", std::ios::binary);
  std::ifstream rope(directory / "rope.cache", std::ios::binary);
  if (!tensors.is_open() || !rope.is_open()) {
    std::cerr << "Error: Could not open model files in " << directory << std::endl;
    return 1;
  }

  // A kernel set forced by QUORVEL_KERNEL_SET that cannot be had ends start-up before any kernel runs.
  if (const auto& choice = kernels::chosen_kernel_set(); choice.set == nullptr) return fail(choice.error);

  // The scratch buffers are sized by the thread count: set it before the model.
  set_thread_count(config.num_threads);
  if (auto warning = oversubscription_warning(thread_count(), usable_cpu_count())) std::cerr << *warning << std::endl;

  ModelFileInfo info;
  if (!check_model_header(tensors, config.arch_type, &info)) return 1;
  if (!check_rope_header(rope, kRopeCacheVersion)) return 1;
  if (auto refusal = qwen3_5_refusal(config, info)) return fail(*refusal);
  // Shapes that nothing can be built for and models that do not fit are
  // refused here, before the first allocation.
  if (auto refusal = start_up_refusal(config, physical_memory_bytes())) return fail(*refusal);

  std::unique_ptr<ModelBase> model = create_model(tensors, rope, config);
  if (!config.lora_dir.empty() && !load_lora_adapter(*model, config.lora_dir)) return 1;
  ModelRunner runner(*model);
  RequestLoop(runner, config, std::cin, std::cout, std::cerr).run();
  return 0;
}

}  // namespace quorvel
