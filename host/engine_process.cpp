#include "host/engine_process.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>

extern char** environ;

namespace quorvel::host {
namespace {

std::vector<char*> c_argv(const std::vector<std::string>& argv) {
  std::vector<char*> out;
  for (const auto& a : argv) out.push_back(const_cast<char*>(a.c_str()));
  out.push_back(nullptr);
  return out;
}

std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

// Waits for the child and reports how it ended.
void wait_for(pid_t pid, int& exit_status, int& signal) {
  int status = 0;
  if (waitpid(pid, &status, 0) < 0) throw std::runtime_error("waitpid failed");
  if (WIFEXITED(status)) exit_status = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) signal = WTERMSIG(status);
}

std::string temp_path(const char* tag) {
  std::string path = std::string("/tmp/quorvel-") + tag + "-XXXXXX";
  const int fd = mkstemp(path.data());
  if (fd < 0) throw std::runtime_error("mkstemp failed");
  close(fd);
  return path;
}

}  // namespace

std::string describe_end(int exit_status, int signal) {
  if (signal != 0) return "was killed by signal " + std::to_string(signal) + " (" + strsignal(signal) + ")";
  return "exited with status " + std::to_string(exit_status);
}

ProcessResult run_process(const std::vector<std::string>& argv, const std::string& input) {
  const std::string in_path = temp_path("in"), out_path = temp_path("out"), err_path = temp_path("err");
  std::ofstream(in_path, std::ios::binary) << input;

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, in_path.c_str(), O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, out_path.c_str(), O_WRONLY | O_TRUNC, 0);
  posix_spawn_file_actions_addopen(&actions, 2, err_path.c_str(), O_WRONLY | O_TRUNC, 0);
  pid_t pid = -1;
  auto args = c_argv(argv);
  const int spawned = posix_spawn(&pid, args[0], &actions, nullptr, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (spawned != 0) throw std::runtime_error("cannot start " + argv[0]);

  ProcessResult result;
  wait_for(pid, result.exit_status, result.signal);
  result.out = read_file(out_path);
  result.err = read_file(err_path);
  for (const auto& path : {in_path, out_path, err_path}) std::remove(path.c_str());
  return result;
}

EngineSession::EngineSession(const std::vector<std::string>& argv, const std::string& stderr_path) {
  int to_child[2], from_child[2];
  // Close-on-exec everywhere, and every other descriptor closed in the child: an engine started while
  // another thread of the host holds sockets or other engines' pipes must not keep them open.
  if (pipe2(to_child, O_CLOEXEC) != 0 || pipe2(from_child, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, to_child[0], 0);
  posix_spawn_file_actions_adddup2(&actions, from_child[1], 1);
  if (!stderr_path.empty()) {
    posix_spawn_file_actions_addopen(&actions, 2, stderr_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  }
  posix_spawn_file_actions_addclosefrom_np(&actions, 3);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  // Nor the host's signal settings: a host that blocks signals in its threads or ignores SIGPIPE
  // starts an engine with the usual ones.
  sigset_t none, defaults;
  sigemptyset(&none);
  sigemptyset(&defaults);
  for (int signal : {SIGPIPE, SIGINT, SIGTERM}) sigaddset(&defaults, signal);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  posix_spawnattr_setpgroup(&attributes, 0);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setsigdefault(&attributes, &defaults);
  auto args = c_argv(argv);
  const int spawned = posix_spawn(&pid_, args[0], &actions, &attributes, args.data(), environ);
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  close(to_child[0]);
  close(from_child[1]);
  if (spawned != 0) throw std::runtime_error("cannot start " + argv[0]);
  to_engine_ = fdopen(to_child[1], "w");
  from_engine_ = fdopen(from_child[0], "r");
}

EngineSession::~EngineSession() {
  if (pid_ > 0) finish();
}

bool EngineSession::send(const std::string& text) {
  const bool written = std::fwrite(text.data(), 1, text.size(), to_engine_) == text.size();
  return std::fflush(to_engine_) == 0 && written;
}

std::optional<std::string> EngineSession::read_line() {
  std::string line;
  int c;
  while ((c = std::fgetc(from_engine_)) != EOF && c != '\n') line.push_back(static_cast<char>(c));
  if (c == EOF && line.empty()) return std::nullopt;
  return line;
}

// Both pipes close before the wait: an engine still writing an answer that
// nobody will read ends on the closed pipe instead of blocking on a full one.
int EngineSession::finish() {
  if (to_engine_) std::fclose(to_engine_);
  to_engine_ = nullptr;
  if (from_engine_) std::fclose(from_engine_);
  from_engine_ = nullptr;
  if (pid_ > 0) wait_for(pid_, exit_status_, signal_);
  pid_ = -1;
  return signal_ != 0 ? 128 + signal_ : exit_status_;
}

void EngineSession::kill() {
  if (pid_ > 0) ::kill(pid_, SIGKILL);
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
