// The sampling settings of a request, as the command line gives them and, for those it leaves out,
// as the model's generation_config.json recommends; the engine's own defaults apply to the rest.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

namespace quorvel::cli {

struct SamplingOptions {
  std::optional<double> temperature;
  std::optional<std::uint64_t> top_k;
  std::optional<double> top_p;
  std::optional<double> repeat_penalty;
  std::uint64_t max_tokens = 0;  // 0: until an end token or the end of the context

  // Takes temperature, top_k, top_p and repetition_penalty from the file where they are still unset
  // (do_sample false means greedy). A missing file changes nothing; an unreadable one is an error.
  void complete_from(const std::filesystem::path& generation_config);

  // Takes the settings still unset from `defaults`.
  void complete_with(const SamplingOptions& defaults);

  // The request's sampling lines, key=value each with its line feed.
  std::string request_lines() const;
};

}  // namespace quorvel::cli
