// The quorvel subcommands. Each returns the process's exit status and throws CommandError (or the
// text library's TextError) for a failure that ends it.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "host/quorvel/sampling_options.h"

namespace quorvel::cli {

// What run and chat share: the model, the engine, the chat format and the sampling.
struct GenerationOptions {
  std::filesystem::path model_dir;
  std::filesystem::path engine;  // empty: quorvel-inference beside this program
  std::string chat_format;       // empty: the one the model's chat template shows
  std::string system;
  bool thinking = true;
  int threads = 0;
  SamplingOptions sampling;
  std::vector<std::string> stop_strings;
};

struct RunOptions {
  GenerationOptions generation;
  std::string prompt;
  bool chat = false;
  bool json = false;
};

struct TokenizeOptions {
  std::filesystem::path source;  // a model directory or a tokenizer.json
  bool special = true;
  bool json = false;
};

int run_command(const RunOptions& options);
int chat_command(const GenerationOptions& options);
int tokenize_command(const TokenizeOptions& options);
int detokenize_command(const TokenizeOptions& options);

}  // namespace quorvel::cli
