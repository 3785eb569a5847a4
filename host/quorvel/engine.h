// The engine as quorvel drives it: a quorvel-inference child process started on a model directory,
// its init config sent, and then one request block per generation, its token lines read back as they
// arrive. The engine's own messages go straight to our standard error; an engine that ends while it
// is needed becomes a CommandError that says how it ended.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <vector>

#include "config/init_config.h"
#include "host/engine_process.h"
#include "host/quorvel/sampling_options.h"
#include "host/text/tokenizer.h"

namespace quorvel::cli {

using Clock = std::chrono::steady_clock;

struct Request {
  std::uint64_t kv_position = 0;
  std::vector<text::TokenId> tokens;  // at least one
  SamplingOptions sampling;
};

struct Answer {
  std::vector<text::TokenId> ids;  // the token lines, an end-of-sequence id last when complete
  std::uint64_t position = 0;      // the position line: how many cache positions are filled
  bool complete = true;            // false when the reader stopped early and the engine was restarted
  Clock::time_point sent, first_token, last_token;
};

class Engine {
 public:
  // Starts the engine and waits until it has loaded the model.
  Engine(std::filesystem::path binary, std::filesystem::path model_dir, const InitConfig& config);

  double load_seconds() const { return load_seconds_; }
  host::ProcessId pid() const { return session_->pid(); }
  const InitConfig& config() const { return config_; }

  // What happens to the rest of an answer that is no longer wanted.
  enum class Rest {
    // Read and dropped, or the engine restarted with an empty cache (complete = false), whichever
    // the speeds measured so far say is quicker: the conversation goes on.
    drop,
    // The engine is ended (complete = false): this was its last request.
    end_engine,
  };

  // Sends `request` and calls `on_token` with each generated id until the answer ends or `on_token`
  // returns false; the rest of the answer then goes as `rest` says.
  Answer ask(const Request& request, const std::function<bool(text::TokenId)>& on_token, Rest rest = Rest::drop);

  // Whether `id` ends an answer.
  bool is_end(text::TokenId id) const;

 private:
  void start();
  [[noreturn]] void stopped_unexpectedly();
  std::uint64_t number(const std::string& line);
  bool drain_is_quicker(const Request& request, const Answer& answer) const;

  std::filesystem::path binary_, model_dir_;
  InitConfig config_;
  std::unique_ptr<host::EngineSession> session_;
  double load_seconds_ = 0;
};

}  // namespace quorvel::cli
