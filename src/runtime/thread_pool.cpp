#include "runtime/thread_pool.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <system_error>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#endif

namespace quorvel {
namespace {

// Pauses in one burst of a spin before the waiting thread yields its core;
// 128 take about 2.5 us on the AMD cores this was measured on. With a core
// per thread the next job or the last share nearly always arrives within the
// burst, so no system call is made; with more threads than cores, a thread
// with nothing to do soon gives way. Measured on 2 cores: 16 or 32 slowed 2
// threads by 30-50 %, 256 or 512 slowed 8 threads by 30 % or 85 %.
constexpr std::uint32_t kPausesPerYield = 128;
// Between tokens the workers stay hot; only an engine idle this long lets
// them block.
constexpr std::chrono::nanoseconds kIdleBeforePark = std::chrono::seconds(10);
// A share still running after this long most likely lost its core to
// another program (the longest job of a decode step takes a few tens of
// microseconds). The dispatcher then blocks instead of yielding: a core
// left idle lets the system move the waiting worker onto it, where a
// yielding dispatcher would keep the core busy and the worker queued behind
// the other program for a whole time slice.
constexpr std::chrono::nanoseconds kWaitBeforeBlocking = std::chrono::microseconds(200);

// Both are constant-initialised, so a set_thread_count() made from another
// file's static initialiser happens after them whatever the link order, and
// nothing in this file's dynamic initialisation can overwrite it.
constinit std::atomic<std::int32_t> g_requested_threads{0};
constinit std::atomic<bool> g_thread_count_frozen{false};

thread_local std::uint64_t t_depth = 0;
thread_local std::uint64_t t_worker_index = 0;
thread_local std::uint64_t t_share = 0;

// Tells the core that this is a busy-wait loop, so that it yields pipeline
// resources to its sibling hyper-thread and saves power.
inline void spin_pause() {
#if defined(__x86_64__) || defined(__i386__)
  _mm_pause();
#elif defined(__aarch64__)
  __asm__ __volatile__("yield");
#endif
}

// Pauses up to kPausesPerYield times while `done()` is false; true once it
// holds. The caller yields the processor when this returns false.
template <typename Done>
bool spin_burst(Done done) {
  for (std::uint32_t i = 0; i < kPausesPerYield; ++i) {
    if (done()) return true;
    spin_pause();
  }
  return done();
}

// Spins in bursts with a yield between them until `done()` holds; once
// `patience` has passed, calls `block()` instead, which returns only when
// it holds. The clock is read only after a yield, whose system call costs
// far more than the read.
template <typename Done, typename Block>
void wait_until(Done done, std::chrono::nanoseconds patience, Block block) {
  const auto waiting_since = std::chrono::steady_clock::now();
  while (!spin_burst(done)) {
    std::this_thread::yield();
    if (std::chrono::steady_clock::now() - waiting_since > patience) {
      block();
      return;
    }
  }
}

// The count the process pool is built with; set_thread_count() has no effect
// from here on, so that buffers sized by thread_count() match the pool.
std::uint64_t freeze_thread_count() {
  g_thread_count_frozen.store(true);
  return thread_count();
}

}  // namespace

std::uint64_t resolve_thread_count(std::uint64_t hardware, std::int32_t requested) {
  if (requested >= 1) return std::min(static_cast<std::uint64_t>(requested), kMaxThreads);
  // Two processors are left free for the host and the operating system.
  if (hardware >= 3) return std::min(hardware - 2, kMaxThreads);
  return 1;
}

std::uint64_t thread_count() {
  static const std::uint64_t hardware = std::thread::hardware_concurrency();
  return resolve_thread_count(hardware, g_requested_threads.load());
}

void set_thread_count(std::int32_t requested) {
  if (requested >= 1 && !g_thread_count_frozen.load()) g_requested_threads.store(requested);
}

std::uint64_t current_depth() { return t_depth; }

std::uint64_t worker_index() { return t_worker_index; }

std::uint64_t current_share() { return t_share; }

ThreadPool& ThreadPool::instance() {
  static ThreadPool pool(freeze_thread_count());
  [[maybe_unused]] static const int registered = std::atexit([] { instance().shutdown(); });
  return pool;
}

ThreadPool::ThreadPool(std::uint64_t threads) : threads_(std::clamp<std::uint64_t>(threads, 1, kMaxThreads)) {
  workers_.reserve(threads_ - 1);
  try {
    for (std::uint64_t i = 1; i < threads_; ++i) workers_.emplace_back(&ThreadPool::worker_loop, this, i);
  } catch (const std::system_error& error) {
    // A joinable std::thread may not be destroyed, so the workers already
    // started are stopped before the failure propagates.
    shutdown();
    throw std::system_error(error.code(), "thread constructor failed");
  }
}

ThreadPool::~ThreadPool() { shutdown(); }

void ThreadPool::run(JobFn fn, void* ctx, std::uint64_t n, std::uint64_t chunk) {
  // Inline also from inside a share (a nested dispatch would overwrite the
  // job in flight) and after shutdown (no worker would ever answer).
  if ((chunk != 0 && n <= chunk) || threads_ <= 1 || t_depth != 0 || !running_.load(std::memory_order_relaxed)) {
    fn(ctx, 0, n);
    return;
  }
  publish(fn, ctx, n, chunk);
  // Release publishes the job fields; sequential consistency also orders this
  // increment before the sleepers_ check (see park()).
  const std::uint64_t generation = generation_.value.fetch_add(1) + 1;
  wake_sleepers();
  ++t_depth;
  run_share(0);
  --t_depth;
  finish_shares(generation);
}

void ThreadPool::shutdown() {
  running_.store(false);
  generation_.value.fetch_add(1);
  { const std::lock_guard<std::mutex> lock(mutex_); }
  wake_.notify_all();
  for (std::thread& worker : workers_) {
    if (worker.joinable()) worker.join();
  }
  workers_.clear();
}

// Plain stores: the release increment of generation_ that follows makes them
// visible to every worker that acquires the new generation.
void ThreadPool::publish(JobFn fn, void* ctx, std::uint64_t n, std::uint64_t chunk) {
  fn_ = fn;
  ctx_ = ctx;
  dynamic_ = chunk != 0;
  if (dynamic_) {
    total_ = n;
    chunk_ = chunk;
    next_chunk_.value.store(0, std::memory_order_relaxed);
  } else {
    share_ = n / threads_;
    remainder_ = n % threads_;
  }
}

// Must follow the increment of generation_. Passing through the mutex before
// notifying means a worker is either already waiting (and gets the
// notification) or has not yet tested its predicate (and sees the new
// generation); no wake-up can fall in between.
void ThreadPool::wake_sleepers() {
  if (sleepers_.value.load() == 0) return;
  { const std::lock_guard<std::mutex> lock(mutex_); }
  wake_.notify_all();
}

// Every generation claims each share exactly once (the dispatcher claims
// what no worker did before it returns), so share i of `generation` is
// unclaimed exactly while its slot still holds the generation before.
bool ThreadPool::claim(std::uint64_t share, std::uint64_t generation) {
  std::uint64_t previous = generation - 1;
  return shares_[share].claimed.compare_exchange_strong(previous, generation, std::memory_order_acq_rel);
}

// The caller holds the claim, so the job fields stay those of `generation`
// until the done store below lets the dispatcher move on.
void ThreadPool::run_claimed_share(std::uint64_t share, std::uint64_t generation) {
  ++t_depth;
  run_share(share);
  --t_depth;
  // Sequentially consistent, against the dispatcher's store to
  // dispatcher_blocked_ before its load of done (see block_until_done()).
  shares_[share].done.store(generation);
  if (dispatcher_blocked_.value.load() != 0) {
    { const std::lock_guard<std::mutex> lock(mutex_); }
    share_done_.notify_one();
  }
}

// Shares in order: one that no worker has claimed yet runs here, on the
// dispatching thread (index 0, so with its scratch); for one that a worker
// runs, wait until it is done.
void ThreadPool::finish_shares(std::uint64_t generation) {
  for (std::uint64_t i = 1; i < threads_; ++i) {
    ShareSlot& slot = shares_[i];
    if (slot.claimed.load(std::memory_order_relaxed) < generation && claim(i, generation)) {
      run_claimed_share(i, generation);
      continue;
    }
    wait_until([&] { return slot.done.load(std::memory_order_acquire) >= generation; }, kWaitBeforeBlocking,
               [&] { block_until_done(slot, generation); });
  }
}

// The sequentially consistent store to dispatcher_blocked_ before the
// predicate's load of done, against the worker's store to done before its
// load of dispatcher_blocked_: either the predicate sees the share done or
// the worker sees the flag and notifies, after the mutex, so never between
// the predicate and the wait.
void ThreadPool::block_until_done(const ShareSlot& slot, std::uint64_t generation) {
  dispatcher_blocked_.value.store(1);
  {
    std::unique_lock<std::mutex> lock(mutex_);
    share_done_.wait(lock, [&] { return slot.done.load() >= generation; });
  }
  dispatcher_blocked_.value.store(0, std::memory_order_relaxed);
}

void ThreadPool::worker_loop(std::uint64_t index) {
  t_worker_index = index;
  std::uint64_t seen = 0;
  for (;;) {
    wait_for_new_generation(seen);
    seen = generation_.value.load(std::memory_order_acquire);
    if (!running_.load(std::memory_order_acquire)) return;
    // A worker that wakes late finds its share taken (or a generation it
    // never saw already finished) and waits for the next one.
    if (claim(index, seen)) run_claimed_share(index, seen);
  }
}

// Waits until the generation moves past `seen` or the pool stops; after ten
// idle seconds it parks instead of spinning.
void ThreadPool::wait_for_new_generation(std::uint64_t seen) {
  const auto moved_on = [&] {
    return generation_.value.load(std::memory_order_acquire) != seen || !running_.load(std::memory_order_relaxed);
  };
  wait_until(moved_on, kIdleBeforePark, [&] { park(seen); });
}

// The sequentially consistent increment of sleepers_ before the predicate's
// load of generation_, against the dispatcher's increment of generation_
// before its load of sleepers_: at least one side sees the other, so either
// this worker never waits or the dispatcher notifies it.
void ThreadPool::park(std::uint64_t seen) {
  sleepers_.value.fetch_add(1);
  {
    std::unique_lock<std::mutex> lock(mutex_);
    wake_.wait(lock, [&] { return generation_.value.load() != seen || !running_.load(); });
  }
  sleepers_.value.fetch_sub(1, std::memory_order_relaxed);
}

void ThreadPool::run_share(std::uint64_t index) {
  t_share = index;
  if (dynamic_) {
    run_chunks();
  } else {
    run_static_block(index);
  }
  t_share = 0;
}

// One contiguous block per thread, in thread order; the first remainder_
// threads take one extra item.
void ThreadPool::run_static_block(std::uint64_t index) const {
  const std::uint64_t count = share_ + (index < remainder_ ? 1 : 0);
  if (count == 0) return;
  fn_(ctx_, share_ * index + std::min(remainder_, index), count);
}

// Chunks first come, first served. Dynamic mode only runs with
// total_ > chunk_ >= 1. Comparing chunk numbers rather than offsets keeps
// m * chunk_ from wrapping past 2^64 when chunk_ is huge.
void ThreadPool::run_chunks() {
  const std::uint64_t last_chunk = (total_ - 1) / chunk_;
  for (;;) {
    const std::uint64_t m = next_chunk_.value.fetch_add(1, std::memory_order_relaxed);
    if (m > last_chunk) return;
    const std::uint64_t first = m * chunk_;
    fn_(ctx_, first, std::min(total_ - first, chunk_));
  }
}

}  // namespace quorvel
