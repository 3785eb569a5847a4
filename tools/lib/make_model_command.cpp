#include <exception>
#include <filesystem>

#include "tools/lib/init_text_writer.h"
#include "tools/lib/lora_file_writer.h"
#include "tools/lib/make_model_options.h"
#include "tools/lib/model_file_writer.h"
#include "tools/lib/rope_cache_writer.h"
#include "tools/lib/tool_commands.h"
#include "tools/lib/utf8_path.h"

namespace quorvel::tools {
namespace {

void write_model_directory(const MakeModelOptions& options) {
  const InitConfig& config = options.config;
  std::filesystem::create_directories(options.output_dir);
  write_model_file(options.output_dir / kModelFileName, config, options.file);
  write_rope_cache(options.output_dir / kRopeCacheFileName, config.head_dim, config.max_position_embeddings,
                   config.rope_theta);
  write_init_text(options.output_dir / kInitTextFileName, config);
  if (options.lora) {
    std::filesystem::create_directories(utf8_path(config.lora_dir));
    write_lora_file(utf8_path(config.lora_dir) / kLoraFileName, config, *options.lora);
  }
}

}  // namespace

int run_make_model(std::span<const std::string_view> args, std::ostream& err) {
  MakeModelOptions options;
  try {
    options = parse_make_model_args(args);
  } catch (const UsageError& error) {
    err << "quorvel-make-model: " << error.what() << '\n' << kMakeModelUsage << std::endl;
    return 1;
  }
  try {
    write_model_directory(options);
  } catch (const std::exception& error) {
    err << "quorvel-make-model: " << error.what() << std::endl;
    return 1;
  }
  return 0;
}

}  // namespace quorvel::tools
