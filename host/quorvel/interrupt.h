// Ctrl-C while a reply streams: it stops the reply, not the program. While a guard lives, SIGINT
// only sets a flag (system calls in progress are restarted); outside, SIGINT has its usual effect.
#pragma once

#include <csignal>

namespace quorvel::cli {

class InterruptGuard {
 public:
  InterruptGuard();
  ~InterruptGuard();
  InterruptGuard(const InterruptGuard&) = delete;
  InterruptGuard& operator=(const InterruptGuard&) = delete;

  // Whether Ctrl-C was pressed since the guard began.
  bool interrupted() const;

 private:
  struct sigaction previous_ {};
};

}  // namespace quorvel::cli
