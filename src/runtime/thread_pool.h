// The process-wide worker pool: a fork-join barrier for very short jobs.
//
// Layers dispatch thousands of jobs per generated token, so the pool never
// allocates, locks or sleeps on the dispatch path: workers spin on a
// generation counter (for ten seconds after their last job, then park on a
// condition variable), and the dispatching thread runs share 0 itself and
// spins until every worker has finished. One job is in flight at a time.
//
// Every spin is a short burst of pause instructions followed, while nothing
// has changed, by a yield of the processor: with more threads than usable
// CPUs, the thread being waited for may be the one without a core.
//
// A share belongs to whichever thread claims it first. Each worker claims its
// own when it wakes; the dispatcher, done with share 0, claims every share
// whose worker has not started yet and runs it itself. A worker that another
// process keeps off its core therefore delays a job by nothing, instead of by
// the scheduler's time slice. The blocks are the same whoever runs them.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>

namespace quorvel {

// A job body processes items [first, first + count); it must be safe to run
// concurrently on disjoint ranges and must not throw.
using JobFn = void (*)(void* ctx, std::uint64_t first, std::uint64_t count);

inline constexpr std::uint64_t kMaxThreads = 128;

// The thread count rule as a pure function: a request >= 1 gives
// min(request, 128); otherwise `hardware` logical processors give
// min(hardware - 2, 128) when there are at least 3 of them, else 1.
std::uint64_t resolve_thread_count(std::uint64_t hardware, std::int32_t requested);

// The thread count T, counting the calling thread. Defaults to the number of
// logical processors minus two (at least 1, at most 128).
std::uint64_t thread_count();
// Applies the init config's "num_threads": a value >= 1 sets T to
// min(value, 128); zero or negative keeps the default. Call before the pool
// is first used; once instance() has been called, T no longer changes and
// the call is ignored. Safe to call from any static initialiser.
void set_thread_count(std::int32_t requested);

// How many pool shares the calling thread is running right now; non-zero
// means "already inside a job: do the work inline, do not dispatch".
std::uint64_t current_depth();
// 0 on the main thread and every non-pool thread, i on worker i (1 .. T-1).
// Shares that run at the same time run on different threads, so this
// indexes per-thread scratch.
std::uint64_t worker_index();
// i while the calling thread runs share i of a static job, whichever thread
// that is; 0 otherwise. One thread may run several shares of a job in turn,
// so results kept per share go to slot current_share(), not worker_index().
std::uint64_t current_share();

class ThreadPool {
 public:
  // The pool of the process, started (T - 1 workers) on the first call.
  static ThreadPool& instance();

  // Starts threads - 1 workers, threads clamped to 1 .. 128. Throws
  // std::system_error "thread constructor failed" if one cannot start.
  explicit ThreadPool(std::uint64_t threads);
  ~ThreadPool();
  ThreadPool(const ThreadPool&) = delete;
  ThreadPool& operator=(const ThreadPool&) = delete;

  // Runs fn over [0, n) and returns when every item is done. chunk == 0:
  // static mode, one contiguous block per share in share order (the first
  // n % T shares take one extra item); share i is run by worker i, or by the
  // dispatcher when worker i has not claimed it by the time the dispatcher
  // gets to it. chunk > 0: blocks of `chunk` items handed out first come,
  // first served.
  void run(JobFn fn, void* ctx, std::uint64_t n, std::uint64_t chunk);

  // Stops and joins the workers. Idempotent; later runs execute inline.
  void shutdown();

  std::uint64_t threads() const { return threads_; }

 private:
  struct alignas(128) PaddedCounter {
    std::atomic<std::uint64_t> value{0};
  };
  // Share i's line: the last generation whose share i someone has claimed,
  // and the last one whose share i is finished. The dispatcher reads both
  // while it waits, so they share the line it polls.
  struct alignas(128) ShareSlot {
    std::atomic<std::uint64_t> claimed{0};
    std::atomic<std::uint64_t> done{0};
  };

  void publish(JobFn fn, void* ctx, std::uint64_t n, std::uint64_t chunk);
  void wake_sleepers();
  bool claim(std::uint64_t share, std::uint64_t generation);
  void run_claimed_share(std::uint64_t share, std::uint64_t generation);
  void finish_shares(std::uint64_t generation);
  void block_until_done(const ShareSlot& slot, std::uint64_t generation);
  void worker_loop(std::uint64_t index);
  void wait_for_new_generation(std::uint64_t seen);
  void park(std::uint64_t seen);
  void run_share(std::uint64_t index);
  void run_static_block(std::uint64_t index) const;
  void run_chunks();

  std::uint64_t threads_;
  JobFn fn_ = nullptr;
  void* ctx_ = nullptr;
  std::uint64_t share_ = 0;
  std::uint64_t remainder_ = 0;
  std::uint64_t total_ = 0;
  std::uint64_t chunk_ = 0;
  std::uint8_t dynamic_ = 0;
  PaddedCounter next_chunk_;
  PaddedCounter generation_;
  ShareSlot shares_[kMaxThreads];
  // Workers parked (or about to park) on wake_; lets the dispatcher skip the
  // mutex and the notification while every worker is spinning.
  PaddedCounter sleepers_;
  // 1 while the dispatcher blocks on share_done_ for a worker that has been
  // slow to finish; the worker that ends a share then notifies it.
  PaddedCounter dispatcher_blocked_;
  std::vector<std::thread> workers_;
  std::atomic<bool> running_{true};
  std::mutex mutex_;
  std::condition_variable wake_;
  std::condition_variable share_done_;
};

// Runs body(first, count) over [0, n) on the process-wide pool. The lambda
// lives on the caller's stack for the duration of the call; nothing is
// allocated.
template <typename Body>
void parallel_for(std::uint64_t n, std::uint64_t chunk, Body& body) {
  ThreadPool::instance().run(
      [](void* ctx, std::uint64_t first, std::uint64_t count) { (*static_cast<Body*>(ctx))(first, count); }, &body,
      n, chunk);
}

}  // namespace quorvel
