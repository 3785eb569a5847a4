// Runs the engine binary the way a host does: a child process fed blocks on
// its standard input, token lines read back from its standard output.
#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "host/child_process.h"

namespace quorvel::host {

struct ProcessResult {
  std::string out;
  std::string err;
  int exit_status = -1;  // valid when the process exited normally
  int signal = 0;        // the terminating signal, 0 when it exited (always on Windows)
};

// Runs `argv` with `input` on standard input until it ends and collects both
// output streams.
ProcessResult run_process(const std::vector<std::string>& argv, const std::string& input);

// A running engine with pipes on standard input and output; standard error
// goes to the given file (or is inherited when empty). The engine runs in a
// process group of its own, so that an interrupt typed at the terminal
// reaches the host alone and the host decides what to do with it.
class EngineSession {
 public:
  EngineSession(const std::vector<std::string>& argv, const std::string& stderr_path = "");
  ~EngineSession();
  EngineSession(const EngineSession&) = delete;
  EngineSession& operator=(const EngineSession&) = delete;

  // False when the engine no longer reads (it has ended).
  bool send(const std::string& text);
  // The next output line without its line feed; nullopt at end of output.
  std::optional<std::string> read_line();
  // Closes both pipes and waits; returns the exit status (or 128 + signal;
  // kKilledStatus after kill()).
  int finish();
  // Ends the engine at once and waits for it.
  void kill();
  ProcessId pid() const { return child_.id(); }
  // After finish() or kill(): how the process ended, in words.
  std::string how_it_ended() const { return describe_end(exit_status_, signal_); }

 private:
  ChildProcess child_;
  std::string unread_;  // output read from the pipe beyond the lines returned so far
  bool output_ended_ = false;
  int exit_status_ = -1;
  int signal_ = 0;
};

// One answered request as a host sees it: every line with its arrival time.
struct TimedAnswer {
  std::vector<std::string> lines;  // token ids, then the position line
  std::chrono::steady_clock::time_point sent;
  std::vector<std::chrono::steady_clock::time_point> arrivals;
};

// Sends one request block and reads its answer: lines up to an
// end-of-sequence id (one of `eos_ids`), then the position line.
TimedAnswer ask(EngineSession& session, const std::string& block, const std::vector<long long>& eos_ids);

// Sends an empty request and waits for its two answer lines: the engine
// answers only once the model is loaded, so timings taken after this
// measure generation, not loading. False when the engine ended instead.
bool wait_until_loaded(EngineSession& session);

// Sends one request block and reads exactly `lines` lines, for runs whose
// length is fixed by max_tokens and that configure no end-of-sequence id.
TimedAnswer ask_lines(EngineSession& session, const std::string& block, std::size_t lines);

}  // namespace quorvel::host
