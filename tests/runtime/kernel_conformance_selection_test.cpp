// The kernel set registry and the accessor's choice.
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "runtime/kernel_sets.h"

namespace quorvel::kernels {
namespace {

const KernelSet* find_set(const std::string& name) {
  for (const KernelSet& set : kernel_sets()) {
    if (name == set.name) return &set;
  }
  return nullptr;
}

TEST(KernelSets, PortableIsLastAndRunsEverywhere) {
  const auto sets = kernel_sets();
  ASSERT_FALSE(sets.empty());
  EXPECT_STREQ(sets.back().name, "portable");
  EXPECT_TRUE(sets.back().supported());
}

TEST(KernelSets, EverySupportedSetBuildsAnInstanceOfItsName) {
  for (const KernelSet& set : kernel_sets()) {
    if (!set.supported()) continue;
    EXPECT_STREQ(set.make()->name(), set.name);
  }
}

TEST(KernelSets, AnAvx512ProcessorAlsoRunsTheAvx2Set) {
  const KernelSet* avx512 = find_set("avx512");
  if (avx512 == nullptr || !avx512->supported()) GTEST_SKIP() << "no AVX-512 set on this build or processor";
  ASSERT_NE(find_set("avx2"), nullptr);
  EXPECT_TRUE(find_set("avx2")->supported());
}

TEST(KernelSelection, AccessorTakesTheFirstSupportedSet) {
  EXPECT_STREQ(kernels().name(), preferred_kernel_set().name);
  for (const KernelSet& set : kernel_sets()) {
    if (&set == &preferred_kernel_set()) break;
    EXPECT_FALSE(set.supported()) << set.name << " is preferred and supported but was passed over";
  }
  EXPECT_EQ(&kernels(), &kernels());
}

// First calls racing from several threads all get the one object.
TEST(KernelSelection, ConcurrentFirstCallsShareOneSet) {
  constexpr int kThreads = 8;
  std::vector<const KernelBase*> seen(kThreads);
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) threads.emplace_back([&seen, i] { seen[i] = &kernels(); });
  for (std::thread& t : threads) t.join();
  for (const KernelBase* k : seen) EXPECT_EQ(k, seen[0]);
}

TEST(KernelSelection, PicksAvx512WhereTheProcessorHasIt) {
  const KernelSet* avx512 = find_set("avx512");
  if (avx512 == nullptr || !avx512->supported()) GTEST_SKIP() << "no AVX-512 set on this build or processor";
  EXPECT_STREQ(kernels().name(), "avx512");
}

}  // namespace
}  // namespace quorvel::kernels
