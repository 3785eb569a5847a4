// One engine process of quorvel-bench, with a model and a thread count,
// asked for the timed requests the bench table is made of.
#pragma once

#include <cstdint>
#include <filesystem>
#include <random>
#include <string>

#include "config/init_config.h"
#include "host/engine_process.h"

namespace quorvel::host {

class BenchSession {
 public:
  // Starts the engine on `model` with `threads` threads and no
  // end-of-sequence id (so that max_tokens alone ends every answer), and
  // waits until the model is loaded.
  BenchSession(const std::string& engine, const std::filesystem::path& model, unsigned threads);
  ~BenchSession();
  BenchSession(const BenchSession&) = delete;
  BenchSession& operator=(const BenchSession&) = delete;

  // Prompt tokens per second of a `prompt`-token prefill from position 0,
  // timed from sending the request to its first token.
  double prefill_tokens_per_second(std::uint64_t prompt);

  // Prefills random tokens after the filled positions until at least
  // `positions` cache positions hold keys and values.
  void fill_cache(std::uint64_t positions);

  // Tokens per second of `decoded` greedy tokens after a `prompt`-token
  // prompt sent at kv_position `depth`.
  double decode_tokens_per_second(std::uint64_t depth, std::uint64_t prompt, std::uint64_t decoded);

 private:
  struct Answer {
    TimedAnswer timed;
    std::uint64_t filled;  // the position line
  };
  // Sends random prompt tokens at kv_position `depth` with max_tokens
  // `tokens` and reads the whole answer.
  Answer ask(std::uint64_t depth, std::uint64_t prompt, std::uint64_t tokens);

  InitConfig config_;
  EngineSession session_;
  std::mt19937_64 random_{11};
  std::uint64_t filled_ = 0;
};

}  // namespace quorvel::host
