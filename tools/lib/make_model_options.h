// The command line of quorvel-make-model: an output directory, the
// architecture and optional shape and file settings, each with a small
// default so that `quorvel-make-model DIR --arch 1` makes a loadable model.
#pragma once

#include <filesystem>
#include <optional>
#include <span>
#include <stdexcept>
#include <string_view>

#include "config/init_config.h"
#include "tools/lib/lora_file_writer.h"
#include "tools/lib/model_file_writer.h"

namespace quorvel::tools {

// A command line that cannot be followed; the message says why.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct MakeModelOptions {
  std::filesystem::path output_dir;
  InitConfig config;  // written to init.txt; shapes the model file
  ModelFileOptions file;
  // The adapter written into config.lora_dir when a --lora-* option asks
  // for one; lora_dir then defaults to the output directory.
  std::optional<LoraFileOptions> lora;
};

extern const char kMakeModelUsage[];

// `args` excludes the program name. Throws UsageError on an unknown option, a
// missing or malformed value, a missing directory or --arch, or shapes that
// the architecture's formats or the rotary tables cannot hold.
MakeModelOptions parse_make_model_args(std::span<const std::string_view> args);

}  // namespace quorvel::tools
