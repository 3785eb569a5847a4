#include "host/parallel_timing.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <limits>
#include <thread>
#include <vector>

namespace quorvel::host {
namespace {

// One repetition. The clock starts only once every thread runs and spins on
// the start flag, so that neither thread creation nor a sleeping core's
// wake-up is timed as work.
double timed_run(unsigned threads, const std::function<void(unsigned)>& work) {
  std::atomic<unsigned> ready{0};
  std::atomic<bool> go{false};
  std::vector<std::thread> workers;
  for (unsigned t = 0; t < threads; ++t) {
    workers.emplace_back([&, t] {
      ready.fetch_add(1);
      while (!go.load(std::memory_order_acquire)) {
      }
      work(t);
    });
  }
  while (ready.load() != threads) std::this_thread::yield();
  const auto start = std::chrono::steady_clock::now();
  go.store(true, std::memory_order_release);
  for (auto& w : workers) w.join();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace

double shortest_parallel_run(unsigned threads, int runs, const std::function<void(unsigned)>& work) {
  double best = std::numeric_limits<double>::infinity();
  for (int run = 0; run < runs; ++run) best = std::min(best, timed_run(threads, work));
  return best;
}

}  // namespace quorvel::host
