// Shared pieces of the layer tests: a pool of two threads, a way to run code
// inside a pool job (where layers must not dispatch), random data, and the
// check of a short-read failure.
#pragma once

#include <gtest/gtest.h>

#include <bit>
#include <cstdint>
#include <functional>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "runtime/bf16.h"
#include "runtime/thread_pool.h"
#include "support/byte_writer.h"
#include "support/capture_stderr.h"

namespace quorvel::testing {

// Every layer test runs with the pool at two threads, so that the parallel
// paths really split their ranges. It must be set before the pool's first
// use, which happens inside the first test.
class TwoThreadPool : public ::testing::Environment {
 public:
  void SetUp() override { set_thread_count(2); }
};
inline ::testing::Environment* const kTwoThreadPool = ::testing::AddGlobalTestEnvironment(new TwoThreadPool);

// Runs f on this thread as the share of a one-item pool job, so that the
// layers see a non-zero depth and take their inline path.
inline void run_inside_job(const std::function<void()>& f) {
  auto body = [&](std::uint64_t, std::uint64_t) {
    EXPECT_NE(current_depth(), 0u);
    f();
  };
  parallel_for(1, 0, body);
}

inline std::vector<bf16> random_bf16(std::mt19937& rng, std::size_t n, float lo = -2.0f, float hi = 2.0f) {
  std::uniform_real_distribution<float> value(lo, hi);
  std::vector<bf16> out(n);
  for (bf16& v : out) v = narrow_saturate(value(rng));
  return out;
}

inline std::vector<std::int8_t> random_codes(std::mt19937& rng, std::size_t n) {
  std::uniform_int_distribution<int> code(-127, 127);
  std::vector<std::int8_t> out(n);
  for (std::int8_t& c : out) c = static_cast<std::int8_t>(code(rng));
  return out;
}

inline std::vector<float> random_scales(std::mt19937& rng, std::size_t n) {
  std::uniform_real_distribution<float> scale(0.001f, 0.05f);
  std::vector<float> out(n);
  for (float& s : out) s = scale(rng);
  return out;
}

inline std::vector<std::uint8_t> random_bytes(std::mt19937& rng, std::size_t n) {
  std::uniform_int_distribution<int> byte(0, 255);
  std::vector<std::uint8_t> out(n);
  for (std::uint8_t& b : out) b = static_cast<std::uint8_t>(byte(rng));
  return out;
}

inline ByteWriter& write_bytes(ByteWriter& writer, const std::vector<std::uint8_t>& bytes) {
  for (std::uint8_t b : bytes) writer.u8(b);
  return writer;
}

inline ByteWriter& write_bf16(ByteWriter& writer, const std::vector<bf16>& values) {
  for (bf16 v : values) writer.u16(v.bits);
  return writer;
}

inline ByteWriter& write_f32(ByteWriter& writer, const std::vector<float>& values) {
  for (float v : values) writer.f32(v);
  return writer;
}

inline bool same_bits(const std::vector<bf16>& a, const std::vector<bf16>& b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (a[i].bits != b[i].bits) return false;
  }
  return true;
}

// Runs `load`, which must fail on a short read: expects exactly one report
// line on standard error and the exception `message`.
inline void expect_short_read(const std::function<void()>& load, const std::string& report,
                              const std::string& message) {
  CaptureStderr captured;
  try {
    load();
    ADD_FAILURE() << "no exception; expected " << message;
  } catch (const std::runtime_error& error) {
    EXPECT_EQ(std::string(error.what()), message);
  }
  EXPECT_EQ(captured.lines(), std::vector<std::string>{report});
}

// Runs `load`, which must refuse its arguments with `message` and write
// nothing to standard error.
inline void expect_refused(const std::function<void()>& load, const std::string& message) {
  CaptureStderr captured;
  try {
    load();
    ADD_FAILURE() << "no exception; expected " << message;
  } catch (const std::runtime_error& error) {
    EXPECT_EQ(std::string(error.what()), message);
  }
  EXPECT_EQ(captured.text(), "");
}

}  // namespace quorvel::testing
