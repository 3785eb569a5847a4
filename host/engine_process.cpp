#include "host/engine_process.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "host/scratch_directory.h"
#include "tools/lib/utf8_path.h"

namespace quorvel::host {
namespace {

namespace fs = std::filesystem;

std::string read_file(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

}  // namespace

// Files rather than pipes: the child never waits on a full pipe that we do not read yet.
ProcessResult run_process(const std::vector<std::string>& argv, const std::string& input) {
  const ScratchDirectory scratch("quorvel-run-");
  const ChildStreams streams{scratch.path() / "in", scratch.path() / "out", scratch.path() / "err"};
  std::ofstream(streams.input, std::ios::binary) << input;
  ProcessEnd end;
  {
    ChildProcess child(argv, streams);
    end = child.wait();
  }
  return {read_file(streams.output), read_file(streams.error), end.exit_status, end.signal};
}

EngineSession::EngineSession(const std::vector<std::string>& argv, const std::string& stderr_path)
    : child_(argv, ChildStreams{{}, {}, tools::utf8_path(stderr_path)}) {}

EngineSession::~EngineSession() { finish(); }

bool EngineSession::send(const std::string& text) { return child_.write(text); }

std::optional<std::string> EngineSession::read_line() {
  std::size_t line_end;
  while ((line_end = unread_.find('\n')) == std::string::npos && !output_ended_) {
    char chunk[4096];
    const std::size_t got = child_.read(chunk, sizeof chunk);
    output_ended_ = got == 0;
    unread_.append(chunk, got);
  }
  if (line_end == std::string::npos && unread_.empty()) return std::nullopt;
  // The last line may lack its line feed.
  std::string line = unread_.substr(0, line_end);
  unread_.erase(0, line_end == std::string::npos ? line_end : line_end + 1);
  return line;
}

// Both pipes close before the wait: an engine still writing an answer that
// nobody will read ends on the closed pipe instead of blocking on a full one.
int EngineSession::finish() {
  const ProcessEnd end = child_.wait();
  exit_status_ = end.exit_status;
  signal_ = end.signal;
  return signal_ != 0 ? 128 + signal_ : exit_status_;
}

void EngineSession::kill() {
  child_.kill();
  finish();
}

namespace {

// Sends `block` and collects lines until `done(line)` says the answer is over.
template <typename Done>
TimedAnswer collect(EngineSession& session, const std::string& block, Done done) {
  TimedAnswer answer;
  answer.sent = std::chrono::steady_clock::now();
  session.send(block);
  while (auto line = session.read_line()) {
    answer.lines.push_back(*line);
    answer.arrivals.push_back(std::chrono::steady_clock::now());
    if (done(*line)) break;
  }
  return answer;
}

}  // namespace

TimedAnswer ask(EngineSession& session, const std::string& block, const std::vector<long long>& eos_ids) {
  bool end_seen = false;
  return collect(session, block, [&](const std::string& line) {
    if (end_seen) return true;  // the position line
    end_seen = std::find(eos_ids.begin(), eos_ids.end(), std::atoll(line.c_str())) != eos_ids.end();
    return false;
  });
}

bool wait_until_loaded(EngineSession& session) {
  return ask_lines(session, "1\nkv_position=0\n", 2).lines.size() == 2;
}

TimedAnswer ask_lines(EngineSession& session, const std::string& block, std::size_t lines) {
  std::size_t seen = 0;
  return collect(session, block, [&](const std::string&) { return ++seen == lines; });
}

}  // namespace quorvel::host
