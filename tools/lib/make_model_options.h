// The command line of quorvel-make-model: an output directory, the
// architecture and optional shape and file settings, each with a small
// default so that `quorvel-make-model DIR --arch 1` makes a loadable model.
#pragma once

#include <filesystem>
#include <span>
#include <stdexcept>
#include <string_view>

#include "engine/init_config.h"
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
};

extern const char kMakeModelUsage[];

// `args` excludes the program name. Throws UsageError on an unknown option, a
// missing or malformed value, a missing directory or --arch, or shapes that
// the architecture's formats or the rotary tables cannot hold.
MakeModelOptions parse_make_model_args(std::span<const std::string_view> args);

}  // namespace quorvel::tools
