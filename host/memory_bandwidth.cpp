#include "host/memory_bandwidth.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

namespace quorvel::host {
namespace {

// Four independent sums so that the loop is bound by loads, not by one
// addition chain; the result is returned so the reads cannot be dropped.
std::uint64_t sum_words(const std::uint64_t* words, std::uint64_t count) {
  std::uint64_t s0 = 0, s1 = 0, s2 = 0, s3 = 0;
  for (std::uint64_t i = 0; i + 4 <= count; i += 4) {
    s0 += words[i];
    s1 += words[i + 1];
    s2 += words[i + 2];
    s3 += words[i + 3];
  }
  return s0 ^ s1 ^ s2 ^ s3;
}

}  // namespace

double measure_read_bandwidth(unsigned threads, std::uint64_t bytes) {
  const std::uint64_t words = bytes / sizeof(std::uint64_t);
  std::unique_ptr<std::uint64_t[]> buffer(new std::uint64_t[words]);
  std::memset(buffer.get(), 1, words * sizeof(std::uint64_t));  // fault every page in first

  double best = 0.0;
  std::vector<std::uint64_t> sinks(threads);
  for (int run = 0; run < 5; ++run) {
    const auto start = std::chrono::steady_clock::now();
    std::vector<std::thread> workers;
    const std::uint64_t share = words / threads;
    for (unsigned t = 0; t < threads; ++t) {
      workers.emplace_back([&, t] { sinks[t] = sum_words(buffer.get() + t * share, share); });
    }
    for (auto& w : workers) w.join();
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    best = std::max(best, static_cast<double>(share * threads * sizeof(std::uint64_t)) / seconds / 1e9);
  }
  volatile std::uint64_t keep = 0;
  for (auto s : sinks) keep = keep + s;
  return best;
}

}  // namespace quorvel::host
