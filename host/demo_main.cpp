// quorvel-demo: a two-request conversation with the engine, as a host would
// hold it, printing the token ids and the prefill and decode speeds.
//
//   quorvel-demo <engine binary> <model directory>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "engine/init_config_parser.h"
#include "host/engine_process.h"
#include "host/this_process.h"
#include "tools/lib/utf8_path.h"

namespace {

using quorvel::host::TimedAnswer;

std::string read_text(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

std::string request(std::uint64_t kv_position, const std::vector<std::int64_t>& tokens) {
  std::ostringstream block;
  std::string list;
  for (auto t : tokens) {
    if (!list.empty()) list += ',';
    list += std::to_string(t);
  }
  block << "4\nkv_position=" << kv_position << "\ntokens=" << list << "\nmax_tokens=48\ntemperature=0.7\n";
  return block.str();
}

double seconds(std::chrono::steady_clock::duration d) { return std::chrono::duration<double>(d).count(); }

// Prints the answer and its speeds: prefill until the first token, decode
// over the tokens after it.
void report(const char* title, std::size_t prompt_tokens, const TimedAnswer& answer) {
  std::cout << title << " (" << prompt_tokens << " prompt tokens):";
  for (std::size_t i = 0; i + 1 < answer.lines.size(); ++i) std::cout << ' ' << answer.lines[i];
  std::cout << "\n  next kv_position: " << answer.lines.back() << '\n';
  const std::size_t generated = answer.lines.size() - 1;
  const double prefill = seconds(answer.arrivals.front() - answer.sent);
  std::cout << "  prefill: " << static_cast<double>(prompt_tokens) / prefill << " tokens/s";
  if (generated > 2) {
    const double decode = seconds(answer.arrivals[generated - 1] - answer.arrivals.front());
    std::cout << ", decode: " << static_cast<double>(generated - 1) / decode << " tokens/s";
  }
  std::cout << "\n";
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> args = quorvel::host::program_arguments(argc, argv);
  if (args.size() != 3) {
    std::cerr << "Usage: " << args.at(0) << " <engine binary> <model directory>" << std::endl;
    return 1;
  }
  const std::string& model_dir = args[2];
  const std::string init = read_text(quorvel::tools::utf8_path(model_dir) / "init.txt");
  std::istringstream init_stream(init);
  const quorvel::InitConfig config = quorvel::read_init_config(init_stream);
  std::vector<long long> eos(config.eos_tokens.begin(), config.eos_tokens.begin() + config.num_eos_tokens);
  if (eos.empty()) eos.push_back(config.eos_tokens[0]);

  std::mt19937_64 random(7);
  auto prompt = [&](std::size_t n) {
    std::vector<std::int64_t> tokens(n);
    for (auto& t : tokens) t = static_cast<std::int64_t>(random() % config.vocab_size);
    return tokens;
  };

  quorvel::host::EngineSession engine({args[1], model_dir});
  engine.send(init);
  quorvel::host::wait_until_loaded(engine);
  const auto first_prompt = prompt(32);
  const TimedAnswer first = quorvel::host::ask(engine, request(0, first_prompt), eos);
  if (first.lines.size() < 2) return engine.finish();  // the engine's own message says why
  report("request 1", first_prompt.size(), first);
  // The host continues the conversation from the position the engine printed.
  const auto second_prompt = prompt(16);
  const TimedAnswer second =
      quorvel::host::ask(engine, request(std::stoull(first.lines.back()), second_prompt), eos);
  if (second.lines.size() < 2) return engine.finish();
  report("request 2", second_prompt.size(), second);
  return engine.finish();
}
