// A random model of architecture 1, small enough for tests that run the engine, with the published
// Llama 3 tokenizer (the fixture folder holding its tokenizer.json) beside it: text goes in and out
// through the real tokenizer, and greedy answers are fixed by the seed.
#pragma once

#include <filesystem>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "tools/lib/tool_commands.h"

namespace quorvel::testing {

// Writes the model into `dir`; returns the model tool's messages when it fails, else an empty string.
inline std::string make_small_llama3_model(const std::filesystem::path& dir, const std::filesystem::path& tokenizer) {
  const std::string model = dir.string();
  const std::vector<std::string_view> args{model, "--arch", "1", "--hidden", "128", "--intermediate", "256",
                                           "--layers", "2", "--heads", "4", "--kv-heads", "4", "--head-dim", "32",
                                           "--vocab", "128256", "--max-pos", "512", "--tied", "--eos", "128001",
                                           "--seed", "11"};
  std::ostringstream err;
  if (tools::run_make_model(args, err) != 0) return err.str().empty() ? "the model tool failed" : err.str();
  for (const char* name : {"tokenizer.json", "tokenizer_config.json"}) {
    std::filesystem::copy_file(tokenizer / name, dir / name);
  }
  return "";
}

}  // namespace quorvel::testing
