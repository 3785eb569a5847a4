#include "host/busy_competitor.h"

#include "host/cpu_affinity.h"

namespace quorvel::host {

BusyCompetitor::BusyCompetitor()
    : cpu_(last_usable_cpu()), thread_([this] {
        pin_this_thread_to(cpu_);  // best effort: unpinned, it still competes
        unsigned long long spins = 0;
        while (running_.load(std::memory_order_relaxed)) ++spins;
        asm volatile("" : : "r"(spins));
      }) {}

BusyCompetitor::~BusyCompetitor() {
  running_.store(false, std::memory_order_relaxed);
  thread_.join();
}

}  // namespace quorvel::host
