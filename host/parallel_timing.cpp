#include "host/parallel_timing.h"

#include <algorithm>
#include <chrono>
#include <limits>
#include <thread>
#include <vector>

namespace quorvel::host {

double shortest_parallel_run(unsigned threads, int runs, const std::function<void(unsigned)>& work) {
  double best = std::numeric_limits<double>::infinity();
  for (int run = 0; run < runs; ++run) {
    const auto start = std::chrono::steady_clock::now();
    std::vector<std::thread> workers;
    for (unsigned t = 0; t < threads; ++t) workers.emplace_back(work, t);
    for (auto& w : workers) w.join();
    best = std::min(best, std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
  }
  return best;
}

}  // namespace quorvel::host
