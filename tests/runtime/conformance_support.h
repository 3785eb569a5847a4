// Shared harness of the kernel conformance suites: every kernel set of the
// build other than the portable one runs each operation it overrides on the
// same inputs as the portable set, and the outputs must agree byte for byte.
//
// A suite derives its fixture from KernelConformanceTest and instantiates it
// with INSTANTIATE_KERNEL_CONFORMANCE. A set the processor cannot run is
// reported as skipped, not passed; a test of a runnable set that compares no
// output at all fails.
#pragma once

#include <gtest/gtest.h>

#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "runtime/kernel_sets.h"
#include "runtime/scalar/portable_kernels.h"

namespace quorvel::test {

// Every set of this build except the portable one.
inline std::vector<const kernels::KernelSet*> simd_kernel_sets() {
  std::vector<const kernels::KernelSet*> sets;
  for (const kernels::KernelSet& set : kernels::kernel_sets()) {
    if (std::string(set.name) != "portable") sets.push_back(&set);
  }
  return sets;
}

// The set's name as a test name: letters, digits and underscores only
// ("neon-dotprod" runs as neon_dotprod).
inline std::string kernel_set_name(const testing::TestParamInfo<const kernels::KernelSet*>& info) {
  std::string name = info.param->name;
  for (char& c : name) {
    if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
  }
  return name;
}

// Output bytes filled around and inside an output range before a call, so
// that writes outside the range show up as differences from the portable run.
inline constexpr std::uint8_t kSentinelByte = 0xA5;

template <typename T>
std::vector<T> sentinel_buffer(std::size_t n) {
  std::vector<T> v(n);
  std::memset(v.data(), kSentinelByte, n * sizeof(T));
  return v;
}

class KernelConformanceTest : public testing::TestWithParam<const kernels::KernelSet*> {
 protected:
  void SetUp() override {
    if (!GetParam()->supported()) GTEST_SKIP() << "this processor cannot run the " << GetParam()->name << " set";
    set_ = GetParam()->make();
  }

  void TearDown() override {
    if (!IsSkipped()) {
      EXPECT_GT(compared_, 0u) << "the test compared no output";
    }
  }

  const kernels::KernelBase& simd() const { return *set_; }
  const kernels::KernelBase& portable() const { return portable_; }

  // The two outputs must be identical bit for bit; `what` names the case.
  template <typename T>
  void expect_identical(const std::vector<T>& expected, const std::vector<T>& actual, const std::string& what) {
    ++compared_;
    ASSERT_EQ(expected.size(), actual.size()) << what;
    if (std::memcmp(expected.data(), actual.data(), expected.size() * sizeof(T)) == 0) return;
    for (std::size_t i = 0; i < expected.size(); ++i) {
      if (std::memcmp(&expected[i], &actual[i], sizeof(T)) != 0) {
        ADD_FAILURE() << what << ": first difference at element " << i << ": portable " << hex(expected[i]) << ", "
                      << GetParam()->name << " " << hex(actual[i]);
        return;
      }
    }
  }

 private:
  template <typename T>
  static std::string hex(const T& value) {
    std::uint64_t bits = 0;
    std::memcpy(&bits, &value, sizeof(T));
    std::ostringstream s;
    s << "0x" << std::hex << bits;
    return s.str();
  }

  kernels::PortableKernels portable_;
  std::unique_ptr<kernels::KernelBase> set_;
  std::size_t compared_ = 0;
};

}  // namespace quorvel::test

// A build without other sets (another processor family) instantiates nothing.
#define INSTANTIATE_KERNEL_CONFORMANCE(Fixture)                                                        \
  GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(Fixture);                                              \
  INSTANTIATE_TEST_SUITE_P(Sets, Fixture, testing::ValuesIn(quorvel::test::simd_kernel_sets()),        \
                           quorvel::test::kernel_set_name)
