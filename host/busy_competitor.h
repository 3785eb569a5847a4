// Another program's busy thread, for the bench rows that show how the engine
// shares the machine: a thread that spins on one CPU for as long as the
// object lives.
#pragma once

#include <atomic>
#include <thread>

namespace quorvel::host {

class BusyCompetitor {
 public:
  // Starts spinning on the last CPU this process may use.
  BusyCompetitor();
  ~BusyCompetitor();
  BusyCompetitor(const BusyCompetitor&) = delete;
  BusyCompetitor& operator=(const BusyCompetitor&) = delete;

  // The CPU it spins on.
  int cpu() const { return cpu_; }

 private:
  std::atomic<bool> running_{true};
  int cpu_;
  std::thread thread_;
};

}  // namespace quorvel::host
