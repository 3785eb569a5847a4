#include <fcntl.h>
#include <pthread.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <stdexcept>

#include "host/child_process.h"

extern char** environ;

namespace quorvel::host {

namespace {

void close_if_open(int& fd) {
  if (fd >= 0) ::close(fd);
  fd = -1;
}

}  // namespace

struct ChildProcess::Handles {
  ~Handles() {
    close_if_open(input);
    close_if_open(output);
  }
  pid_t pid = -1;
  int input = -1;   // our end of the child's standard input
  int output = -1;  // our end of the child's standard output
};

namespace {

// How the child starts: its streams, and none of our other descriptors nor
// our signal settings.
class SpawnSettings {
 public:
  SpawnSettings();
  ~SpawnSettings();
  SpawnSettings(const SpawnSettings&) = delete;
  SpawnSettings& operator=(const SpawnSettings&) = delete;

  // Stream `fd` of the child from the file `path`, or when that is empty
  // from a new pipe whose other end is returned.
  int redirect(int fd, const std::filesystem::path& path);
  void error_to(const std::filesystem::path& path);
  pid_t spawn(const std::vector<std::string>& argv);

 private:
  posix_spawn_file_actions_t actions_;
  posix_spawnattr_t attributes_;
  int child_ends_[2] = {-1, -1};  // of the pipes, closed here once the child has them
};

// A host that blocks signals in its threads or ignores SIGPIPE starts a child with the usual
// ones, in a process group of its own.
SpawnSettings::SpawnSettings() {
  posix_spawn_file_actions_init(&actions_);
  posix_spawnattr_init(&attributes_);
  sigset_t none, defaults;
  sigemptyset(&none);
  sigemptyset(&defaults);
  for (int signal : {SIGPIPE, SIGINT, SIGTERM}) sigaddset(&defaults, signal);
  posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  posix_spawnattr_setpgroup(&attributes_, 0);
  posix_spawnattr_setsigmask(&attributes_, &none);
  posix_spawnattr_setsigdefault(&attributes_, &defaults);
}

SpawnSettings::~SpawnSettings() {
  posix_spawnattr_destroy(&attributes_);
  posix_spawn_file_actions_destroy(&actions_);
  for (int& fd : child_ends_) close_if_open(fd);
}

int SpawnSettings::redirect(int fd, const std::filesystem::path& path) {
  if (!path.empty()) {
    const int flags = fd == 0 ? O_RDONLY : O_WRONLY | O_CREAT | O_TRUNC;
    posix_spawn_file_actions_addopen(&actions_, fd, path.c_str(), flags, 0644);
    return -1;
  }
  // Close-on-exec on both ends, and every descriptor above 2 closed in the child (spawn()): a
  // child started while another thread holds sockets or other children's pipes must not keep them.
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error(std::string("cannot make a pipe: ") + std::strerror(errno));
  const int childs = fd == 0 ? 0 : 1;
  child_ends_[fd] = ends[childs];
  posix_spawn_file_actions_adddup2(&actions_, ends[childs], fd);
  return ends[1 - childs];
}

void SpawnSettings::error_to(const std::filesystem::path& path) {
  posix_spawn_file_actions_addopen(&actions_, 2, path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
}

pid_t SpawnSettings::spawn(const std::vector<std::string>& argv) {
  posix_spawn_file_actions_addclosefrom_np(&actions_, 3);
  std::vector<char*> args;
  for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  pid_t pid = -1;
  const int error = posix_spawn(&pid, args.at(0), &actions_, &attributes_, args.data(), environ);
  if (error != 0) throw std::runtime_error("cannot start " + argv[0] + ": " + std::strerror(error));
  return pid;
}

}  // namespace

std::string describe_end(int exit_status, int signal) {
  if (signal != 0) return "was killed by signal " + std::to_string(signal) + " (" + strsignal(signal) + ")";
  return "exited with status " + std::to_string(exit_status);
}

ChildProcess::ChildProcess(const std::vector<std::string>& argv, const ChildStreams& streams)
    : handles_(std::make_unique<Handles>()) {
  SpawnSettings settings;
  handles_->input = settings.redirect(0, streams.input);
  handles_->output = settings.redirect(1, streams.output);
  if (!streams.error.empty()) settings.error_to(streams.error);
  handles_->pid = settings.spawn(argv);
}

ChildProcess::~ChildProcess() {
  if (!end_) wait();
}

// SIGPIPE is blocked in this thread while it writes, and one that the write
// raised is taken back, so that a child that stopped reading makes the write
// fail with EPIPE instead of ending us.
bool ChildProcess::write(std::string_view bytes) {
  if (handles_->input < 0) return false;
  sigset_t pipe_signal, previous_mask, pending;
  sigemptyset(&pipe_signal);
  sigaddset(&pipe_signal, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipe_signal, &previous_mask);
  sigpending(&pending);
  const bool was_pending = sigismember(&pending, SIGPIPE) == 1;
  int error = 0;
  while (!bytes.empty() && error == 0) {
    const ssize_t written = ::write(handles_->input, bytes.data(), bytes.size());
    if (written >= 0) bytes.remove_prefix(static_cast<std::size_t>(written));
    if (written < 0 && errno != EINTR) error = errno;
  }
  if (error == EPIPE && !was_pending) {
    const timespec no_wait{};
    sigtimedwait(&pipe_signal, nullptr, &no_wait);
  }
  pthread_sigmask(SIG_SETMASK, &previous_mask, nullptr);
  return error == 0;
}

std::size_t ChildProcess::read(char* buffer, std::size_t size) {
  while (handles_->output >= 0) {
    const ssize_t got = ::read(handles_->output, buffer, size);
    if (got >= 0) return static_cast<std::size_t>(got);
    if (errno != EINTR) return 0;
  }
  return 0;
}

void ChildProcess::close_input() { close_if_open(handles_->input); }

void ChildProcess::close_output() { close_if_open(handles_->output); }

ProcessEnd ChildProcess::wait() {
  if (end_) return *end_;
  close_input();
  close_output();
  int status = 0;
  while (waitpid(handles_->pid, &status, 0) < 0) {
    if (errno != EINTR) throw std::runtime_error("waitpid failed");
  }
  ProcessEnd end;
  if (WIFEXITED(status)) end.exit_status = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) end.signal = WTERMSIG(status);
  end_ = end;
  return end;
}

void ChildProcess::kill() {
  if (!end_) ::kill(handles_->pid, SIGKILL);
}

ProcessId ChildProcess::id() const { return handles_->pid; }

}  // namespace quorvel::host
