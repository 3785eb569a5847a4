#include "host/quorvel/sampling_options.h"

#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "host/quorvel/command_error.h"

namespace quorvel::cli {
namespace {

using nlohmann::json;

template <typename T>
void take(std::optional<T>& option, const json& config, const char* key) {
  const auto found = config.find(key);
  if (option || found == config.end() || !found->is_number()) return;
  option = found->get<T>();
}

}  // namespace

void SamplingOptions::complete_from(const std::filesystem::path& generation_config) {
  if (!std::filesystem::exists(generation_config)) return;
  std::ifstream in(generation_config, std::ios::binary);
  const json config = json::parse(in, nullptr, false);
  if (!in || !config.is_object()) throw CommandError(generation_config.string() + ": is not a JSON object");
  const auto do_sample = config.find("do_sample");
  if (!temperature && do_sample != config.end() && do_sample->is_boolean() && !do_sample->get<bool>()) {
    temperature = 0.0;
  }
  take(temperature, config, "temperature");
  take(top_k, config, "top_k");
  take(top_p, config, "top_p");
  take(repeat_penalty, config, "repetition_penalty");
}

void SamplingOptions::complete_with(const SamplingOptions& defaults) {
  if (!temperature) temperature = defaults.temperature;
  if (!top_k) top_k = defaults.top_k;
  if (!top_p) top_p = defaults.top_p;
  if (!repeat_penalty) repeat_penalty = defaults.repeat_penalty;
}

std::string SamplingOptions::request_lines() const {
  std::ostringstream lines;
  lines.precision(9);
  if (temperature) lines << "temperature=" << *temperature << '\n';
  if (top_k) lines << "top_k=" << *top_k << '\n';
  if (top_p) lines << "top_p=" << *top_p << '\n';
  if (repeat_penalty) lines << "repetition_penalty=" << *repeat_penalty << '\n';
  lines << "max_tokens=" << max_tokens << '\n';
  return lines.str();
}

}  // namespace quorvel::cli
