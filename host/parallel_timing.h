// Wall time of work that several threads do at once, for the bench's
// measurements of the machine itself.
#pragma once

#include <functional>

namespace quorvel::host {

// Runs `work(t)` for t = 0 .. threads-1, each on a thread of its own, all
// released together once every one of them runs; repeats `runs` times and
// returns the shortest wall time of one repetition in seconds.
double shortest_parallel_run(unsigned threads, int runs, const std::function<void(unsigned)>& work);

}  // namespace quorvel::host
