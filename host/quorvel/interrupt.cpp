#include "host/quorvel/interrupt.h"

#include <atomic>

namespace quorvel::cli {
namespace {

std::atomic<bool> interrupt_seen{false};

extern "C" void note_interrupt(int) { interrupt_seen.store(true); }

}  // namespace

InterruptGuard::InterruptGuard() {
  interrupt_seen.store(false);
  struct sigaction action {};
  action.sa_handler = note_interrupt;
  action.sa_flags = SA_RESTART;
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, &previous_);
}

InterruptGuard::~InterruptGuard() { sigaction(SIGINT, &previous_, nullptr); }

bool InterruptGuard::interrupted() const { return interrupt_seen.load(); }

}  // namespace quorvel::cli
