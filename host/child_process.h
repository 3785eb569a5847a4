// A program started as a child process, its standard streams each a pipe to
// us, a file, or (standard error) ours: the one place that knows how the
// operating system starts, feeds, waits for and ends a program.
// child_process_posix.cpp and child_process_windows.cpp implement it; the
// build picks one.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quorvel::host {

using ProcessId = std::int64_t;

// How a child ended. Windows has no signals: there `signal` is always 0, and
// a crash shows as its exception code in `exit_status` (0xC0000005 is -1073741819).
struct ProcessEnd {
  int exit_status = -1;  // valid when `signal` is 0
  int signal = 0;        // the signal that ended it, 0 when it exited
};

// The status of a child that kill() ended, as finish() and the like report it: on POSIX
// 128 + SIGKILL, as a shell shows it, and the exit code kill() gives it on Windows.
inline constexpr int kKilledStatus = 128 + 9;

// How a child ended, in words: "exited with status 1", "was killed by signal
// 9 (Killed)", "ended with exception 0xC0000005".
std::string describe_end(int exit_status, int signal);

// Where a child's standard streams go; an empty path means a pipe to us for
// input and output, and our own standard error for errors.
struct ChildStreams {
  std::filesystem::path input;   // read from this file
  std::filesystem::path output;  // written to this file, emptied first
  std::filesystem::path error;   // written to this file, emptied first
};

class ChildProcess {
 public:
  // Starts the program at path argv[0] (no search of PATH) with argv[1...] as
  // its arguments, all UTF-8. The child gets its three streams and nothing
  // else that we have open, and the usual signal settings whatever ours are.
  // It runs in a process group of its own, so that an interrupt typed at the
  // terminal reaches us alone. Throws std::runtime_error when it cannot start.
  explicit ChildProcess(const std::vector<std::string>& argv, const ChildStreams& streams = {});
  // Closes the pipes and waits for the child unless wait() has.
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // Writes all of `bytes` to the input pipe; false when the child no longer
  // reads it (it has ended or closed it). Never ends us with SIGPIPE.
  bool write(std::string_view bytes);
  // Up to `size` bytes from the output pipe, waiting until there is at least
  // one; 0 at its end.
  std::size_t read(char* buffer, std::size_t size);
  // The child sees the end of its input; a child still writing output that we
  // no longer read fails instead of blocking on a full pipe.
  void close_input();
  void close_output();
  // Closes both pipes and waits until the child has ended; later calls
  // return the same.
  ProcessEnd wait();
  // Ends the child at once if it still runs (SIGKILL; TerminateProcess with
  // kKilledStatus); wait() then reports it.
  void kill();
  ProcessId id() const;

 private:
  struct Handles;  // the platform's own
  std::unique_ptr<Handles> handles_;
  std::optional<ProcessEnd> end_;
};

}  // namespace quorvel::host
