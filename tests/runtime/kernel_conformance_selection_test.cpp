// The kernel set registry and the accessor's choice.
#include <gtest/gtest.h>

#include <cstdlib>
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
  EXPECT_STREQ(kernels().name(), chosen_kernel_set().set->name);
  if (std::getenv("QUORVEL_KERNEL_SET") == nullptr) {
    EXPECT_EQ(chosen_kernel_set().set, &preferred_kernel_set());
  }
  for (const KernelSet& set : kernel_sets()) {
    if (&set == &preferred_kernel_set()) break;
    EXPECT_FALSE(set.supported()) << set.name << " is preferred and supported but was passed over";
  }
  EXPECT_EQ(&kernels(), &kernels());
}

// A stand-in registry: "wide" is built but this processor cannot run it.
bool never() { return false; }
bool always() { return true; }
std::unique_ptr<KernelBase> no_instance() { return nullptr; }
constexpr KernelSet kStandIns[] = {
    {"wide", never, no_instance}, {"narrow", always, no_instance}, {"portable", always, no_instance}};

TEST(KernelSelection, AForcedSetReplacesThePreferredOne) {
  EXPECT_EQ(choose_kernel_set(kStandIns, "").set, &kStandIns[1]);
  EXPECT_EQ(choose_kernel_set(kStandIns, "portable").set, &kStandIns[2]);
  EXPECT_EQ(choose_kernel_set(kStandIns, "narrow").error, "");
  for (const KernelSet& set : kernel_sets()) {
    if (set.supported()) {
      EXPECT_EQ(choose_kernel_set(kernel_sets(), set.name).set, &set) << set.name;
    }
  }
}

TEST(KernelSelection, AForcedSetThatCannotRunIsRefusedWithTheSetsThatCan) {
  const KernelSetChoice unknown = choose_kernel_set(kStandIns, "Narrow");
  EXPECT_EQ(unknown.set, nullptr);
  EXPECT_EQ(unknown.error,
            "Error: QUORVEL_KERNEL_SET=Narrow names no kernel set of this build; this processor runs narrow, portable");
  const KernelSetChoice unsupported = choose_kernel_set(kStandIns, "wide");
  EXPECT_EQ(unsupported.set, nullptr);
  EXPECT_EQ(unsupported.error,
            "Error: QUORVEL_KERNEL_SET=wide names a kernel set this processor cannot run; this processor runs "
            "narrow, portable");
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
