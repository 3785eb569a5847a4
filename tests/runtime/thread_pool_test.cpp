#include "runtime/thread_pool.h"

#include <gtest/gtest.h>

#include <time.h>

#if defined(_WIN32)
#include <windows.h>
#else
#include <sched.h>
#endif

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

namespace quorvel {
namespace {

// Made from this file's static initialisation, as the engine's own tests do:
// it must survive whatever order the library's initialisation runs in.
const bool kThreadsRequested = (set_thread_count(3), true);

struct Call {
  std::uint64_t first;
  std::uint64_t count;
  std::uint64_t worker;
  std::uint64_t share;
  std::uint64_t depth;
  bool operator<(const Call& other) const { return first < other.first; }
};

struct Recorder {
  std::mutex mutex;
  std::vector<Call> calls;

  static void record(void* ctx, std::uint64_t first, std::uint64_t count) {
    auto* self = static_cast<Recorder*>(ctx);
    const std::lock_guard<std::mutex> lock(self->mutex);
    self->calls.push_back({first, count, worker_index(), current_share(), current_depth()});
  }
};

// Runs one job and returns its calls sorted by first item.
std::vector<Call> record_run(ThreadPool& pool, std::uint64_t n, std::uint64_t chunk) {
  Recorder recorder;
  pool.run(&Recorder::record, &recorder, n, chunk);
  EXPECT_EQ(current_depth(), 0u);
  std::sort(recorder.calls.begin(), recorder.calls.end());
  return recorder.calls;
}

void expect_one_inline_call(const std::vector<Call>& calls, std::uint64_t n) {
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].first, 0u);
  EXPECT_EQ(calls[0].count, n);
  EXPECT_EQ(calls[0].worker, 0u);
  EXPECT_EQ(calls[0].depth, 0u);
}

TEST(ThreadCountTest, DefaultLeavesTwoProcessorsFreeWithinOneTo128) {
  EXPECT_EQ(resolve_thread_count(0, 0), 1u);  // count unknown
  EXPECT_EQ(resolve_thread_count(2, 0), 1u);
  EXPECT_EQ(resolve_thread_count(3, 0), 1u);
  EXPECT_EQ(resolve_thread_count(4, 0), 2u);
  EXPECT_EQ(resolve_thread_count(130, 0), 128u);
  EXPECT_EQ(resolve_thread_count(1000, 0), 128u);
}

TEST(ThreadCountTest, PositiveRequestOverridesUpTo128AndOthersKeepDefault) {
  EXPECT_EQ(resolve_thread_count(16, 1), 1u);
  EXPECT_EQ(resolve_thread_count(2, 7), 7u);
  EXPECT_EQ(resolve_thread_count(16, 128), 128u);
  EXPECT_EQ(resolve_thread_count(16, 500), 128u);
  EXPECT_EQ(resolve_thread_count(16, 0), 14u);
  EXPECT_EQ(resolve_thread_count(16, -3), 14u);
}

TEST(ThreadPoolTest, StaticModeGivesEachThreadItsContiguousBlockInOrder) {
  for (const std::uint64_t threads : {2u, 4u}) {
    ThreadPool pool(threads);
    for (const std::uint64_t n : {0u, 1u, 3u, 4u, 5u, 11u, 1000u}) {
      SCOPED_TRACE(testing::Message() << "T=" << threads << " n=" << n);
      const std::vector<Call> calls = record_run(pool, n, 0);
      ASSERT_EQ(calls.size(), std::min(n, threads));
      std::uint64_t next = 0;
      for (std::uint64_t i = 0; i < calls.size(); ++i) {
        EXPECT_EQ(calls[i].share, i);
        // Worker i runs block i unless the dispatcher took it over first.
        EXPECT_TRUE(calls[i].worker == i || calls[i].worker == 0) << calls[i].worker;
        EXPECT_EQ(calls[i].first, next);
        EXPECT_EQ(calls[i].count, n / threads + (i < n % threads ? 1 : 0));
        EXPECT_EQ(calls[i].depth, 1u);
        next = calls[i].first + calls[i].count;
      }
      EXPECT_EQ(next, n);
    }
  }
}

TEST(ThreadPoolTest, DynamicModeRunsSmallJobsInlineAndSplitsLargerOnesIntoChunks) {
  ThreadPool pool(4);
  expect_one_inline_call(record_run(pool, 0, 4), 0);
  expect_one_inline_call(record_run(pool, 5, 8), 5);
  expect_one_inline_call(record_run(pool, 8, 8), 8);

  const std::vector<Call> two = record_run(pool, 9, 8);
  ASSERT_EQ(two.size(), 2u);
  EXPECT_EQ(two[0].first, 0u);
  EXPECT_EQ(two[0].count, 8u);
  EXPECT_EQ(two[1].first, 8u);
  EXPECT_EQ(two[1].count, 1u);

  const std::vector<Call> many = record_run(pool, 1000, 7);
  ASSERT_EQ(many.size(), 143u);
  for (std::uint64_t m = 0; m < many.size(); ++m) {
    EXPECT_EQ(many[m].first, 7 * m);
    EXPECT_EQ(many[m].count, m + 1 < many.size() ? 7u : 6u);
    EXPECT_EQ(many[m].depth, 1u);
  }
}

TEST(ThreadPoolTest, DynamicModeWithHugeChunksDoesNotWrapAround) {
  ThreadPool pool(4);
  const std::uint64_t chunk = std::uint64_t{1} << 63;
  const std::vector<Call> calls = record_run(pool, chunk + 1, chunk);
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_EQ(calls[0].first, 0u);
  EXPECT_EQ(calls[0].count, chunk);
  EXPECT_EQ(calls[1].first, chunk);
  EXPECT_EQ(calls[1].count, 1u);
}

TEST(ThreadPoolTest, SingleThreadPoolRunsEveryJobInlineAsOneCall) {
  ThreadPool pool(1);
  expect_one_inline_call(record_run(pool, 10, 0), 10);
  expect_one_inline_call(record_run(pool, 0, 0), 0);
  expect_one_inline_call(record_run(pool, 100, 3), 100);
}

struct NestedJob {
  ThreadPool* pool;
  Recorder inner[4];

  static void run_inner(void* ctx, std::uint64_t first, std::uint64_t) {
    auto* self = static_cast<NestedJob*>(ctx);
    self->pool->run(&Recorder::record, &self->inner[first], 6, 0);
  }
};

TEST(ThreadPoolTest, RunFromInsideAShareOrAfterShutdownRunsInline) {
  ThreadPool pool(4);
  NestedJob job{&pool, {}};
  pool.run(&NestedJob::run_inner, &job, 4, 0);
  for (std::uint64_t i = 0; i < 4; ++i) {
    ASSERT_EQ(job.inner[i].calls.size(), 1u);
    EXPECT_EQ(job.inner[i].calls[0].count, 6u);
    EXPECT_TRUE(job.inner[i].calls[0].worker == i || job.inner[i].calls[0].worker == 0);
    EXPECT_EQ(job.inner[i].calls[0].depth, 1u);
  }
  pool.shutdown();
  pool.shutdown();
  expect_one_inline_call(record_run(pool, 10, 0), 10);
}

// Every item of every job is marked with its job number; a run that returned
// before all shares finished (or without ordering their writes) leaves an
// old mark behind.
struct MarkJob {
  std::uint32_t tag = 0;
  std::vector<std::uint32_t> marks = std::vector<std::uint32_t>(64, 0);

  static void mark(void* ctx, std::uint64_t first, std::uint64_t count) {
    auto* self = static_cast<MarkJob*>(ctx);
    for (std::uint64_t i = first; i < first + count; ++i) self->marks[i] = self->tag;
  }
};

void expect_back_to_back_jobs_complete(ThreadPool& pool, std::uint32_t jobs) {
  MarkJob job;
  for (job.tag = 1; job.tag <= jobs; ++job.tag) {
    const std::uint64_t n = job.tag % job.marks.size() + 1;
    pool.run(&MarkJob::mark, &job, n, job.tag % 3);
    const auto stale = std::find_if(job.marks.begin(), job.marks.begin() + static_cast<std::ptrdiff_t>(n),
                                    [&](std::uint32_t mark) { return mark != job.tag; });
    ASSERT_EQ(stale - job.marks.begin(), static_cast<std::ptrdiff_t>(n)) << "job " << job.tag;
  }
}

// The long run uses two threads so that it stays quick on a loaded machine.
TEST(ThreadPoolTest, ManyBackToBackTinyJobsAllComplete) {
  ThreadPool two(2);
  expect_back_to_back_jobs_complete(two, 100000);
  ThreadPool four(4);
  expect_back_to_back_jobs_complete(four, 100);
}

// Far more threads than cores: every job waits for threads that have no core
// until the waiting ones yield theirs. Spinning without yielding made this
// take a scheduler time slice per job.
TEST(ThreadPoolTest, PoolWithFarMoreThreadsThanCoresCompletesBackToBackJobs) {
  ThreadPool sixteen(16);
  expect_back_to_back_jobs_complete(sixteen, 5000);
}

// Each share records which thread ran it; no two shares of a job may run at
// the same time on one thread's scratch.
struct OwnerJob {
  std::array<std::atomic<int>, 16> scratch_in_use{};
  std::array<std::uint64_t, 16> runner{};
  std::atomic<int> overlaps{0};

  static void run(void* ctx, std::uint64_t first, std::uint64_t count) {
    auto* self = static_cast<OwnerJob*>(ctx);
    std::atomic<int>& scratch = self->scratch_in_use[worker_index()];
    if (scratch.fetch_add(1) != 0) self->overlaps.fetch_add(1);
    for (std::uint64_t i = first; i < first + count; ++i) self->runner[i] = worker_index();
    scratch.fetch_sub(1);
  }
};

// While the object lives, the calling thread and the threads it starts run
// on one CPU: on Linux new threads inherit the starting thread's affinity, on
// Windows every thread follows the process's.
class OneCpu {
 public:
#if defined(_WIN32)
  OneCpu() {
    DWORD_PTR system = 0;
    EXPECT_TRUE(GetProcessAffinityMask(GetCurrentProcess(), &all_, &system));
    EXPECT_TRUE(SetProcessAffinityMask(GetCurrentProcess(), all_ & (~all_ + 1)));  // the lowest CPU of the mask
  }
  ~OneCpu() { EXPECT_TRUE(SetProcessAffinityMask(GetCurrentProcess(), all_)); }

 private:
  DWORD_PTR all_ = 0;
#else
  OneCpu() {
    EXPECT_EQ(sched_getaffinity(0, sizeof all_, &all_), 0);
    cpu_set_t one;
    CPU_ZERO(&one);
    for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
      if (CPU_ISSET(cpu, &all_)) {
        CPU_SET(cpu, &one);
        break;
      }
    }
    EXPECT_EQ(sched_setaffinity(0, sizeof one, &one), 0);
  }
  ~OneCpu() { EXPECT_EQ(sched_setaffinity(0, sizeof all_, &all_), 0); }

 private:
  cpu_set_t all_;
#endif
};

// Sixteen threads on one CPU: most workers are off the core when a job
// starts, and the dispatcher runs their shares itself. Each block still runs
// once, and never on a scratch slice another share is using.
TEST(ThreadPoolTest, DispatcherRunsTheSharesOfWorkersThatHaveNotStarted) {
  const OneCpu one_cpu;
  ThreadPool pool(16);
  std::uint64_t taken_over = 0;
  for (int job_number = 0; job_number < 300; ++job_number) {
    OwnerJob job;
    pool.run(&OwnerJob::run, &job, 16, 0);
    ASSERT_EQ(job.overlaps.load(), 0);
    for (std::uint64_t i = 1; i < 16; ++i) {
      ASSERT_TRUE(job.runner[i] == i || job.runner[i] == 0) << "share " << i << " ran on " << job.runner[i];
      taken_over += job.runner[i] == 0 ? 1 : 0;
    }
  }
  EXPECT_GT(taken_over, 0u);
}

// Item 0 (the dispatcher's) waits until a worker has started item 1, which
// then sleeps: the dispatcher, waiting for it, must let its core go idle
// rather than spin or yield for the whole sleep.
struct SlowWorkerJob {
  std::atomic<bool> worker_started{false};

  static void run(void* ctx, std::uint64_t first, std::uint64_t) {
    auto* self = static_cast<SlowWorkerJob*>(ctx);
    if (first == 1) {
      self->worker_started = true;
      std::this_thread::sleep_for(std::chrono::milliseconds(300));
      return;
    }
    while (!self->worker_started) std::this_thread::yield();
  }
};

double thread_cpu_seconds() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

TEST(ThreadPoolTest, DispatcherWaitingLongForAWorkerLeavesItsCoreIdle) {
  ThreadPool pool(2);
  SlowWorkerJob job;
  const double cpu_before = thread_cpu_seconds();
  pool.run(&SlowWorkerJob::run, &job, 2, 0);
  EXPECT_LT(thread_cpu_seconds() - cpu_before, 0.1);
}

// Takes eleven seconds: the workers must have parked, and both a dispatch
// and a shutdown must still reach them.
TEST(ThreadPoolSlowTest, DispatchAndShutdownReachParkedWorkers) {
  ThreadPool dispatched(2);
  std::optional<ThreadPool> shut_down(std::in_place, 2);
  MarkJob job;
  job.tag = 1;
  dispatched.run(&MarkJob::mark, &job, 64, 0);
  shut_down->run(&MarkJob::mark, &job, 64, 0);

  std::this_thread::sleep_for(std::chrono::seconds(11));
  job.tag = 2;
  dispatched.run(&MarkJob::mark, &job, 64, 0);
  EXPECT_EQ(std::count(job.marks.begin(), job.marks.end(), 2u), 64);
  shut_down.reset();
}

TEST(ThreadPoolTest, ProcessPoolKeepsTheCountRequestedDuringStaticInitialisation) {
  ASSERT_TRUE(kThreadsRequested);
  EXPECT_EQ(thread_count(), 3u);
  EXPECT_EQ(ThreadPool::instance().threads(), 3u);
  set_thread_count(5);  // too late: the pool exists
  EXPECT_EQ(thread_count(), 3u);

  std::vector<std::uint64_t> squares(10, 0);
  auto body = [&](std::uint64_t first, std::uint64_t count) {
    for (std::uint64_t i = first; i < first + count; ++i) squares[i] = i * i;
  };
  parallel_for(squares.size(), 0, body);
  for (std::uint64_t i = 0; i < squares.size(); ++i) EXPECT_EQ(squares[i], i * i);
}

}  // namespace
}  // namespace quorvel
