#include "host/busy_competitor.h"

#include <sched.h>

#include <stdexcept>

namespace quorvel::host {
namespace {

int last_usable_cpu() {
  cpu_set_t usable;
  if (sched_getaffinity(0, sizeof usable, &usable) != 0) throw std::runtime_error("cannot read this process's CPUs");
  for (int cpu = CPU_SETSIZE - 1; cpu >= 0; --cpu) {
    if (CPU_ISSET(cpu, &usable)) return cpu;
  }
  throw std::runtime_error("this process may use no CPU");
}

void pin_to(int cpu) {
  cpu_set_t one;
  CPU_ZERO(&one);
  CPU_SET(cpu, &one);
  sched_setaffinity(0, sizeof one, &one);  // best effort: unpinned, it still competes
}

}  // namespace

BusyCompetitor::BusyCompetitor()
    : cpu_(last_usable_cpu()), thread_([this] {
        pin_to(cpu_);
        unsigned long long spins = 0;
        while (running_.load(std::memory_order_relaxed)) ++spins;
        asm volatile("" : : "r"(spins));
      }) {}

BusyCompetitor::~BusyCompetitor() {
  running_.store(false, std::memory_order_relaxed);
  thread_.join();
}

}  // namespace quorvel::host
