#include "runtime/usable_cpus.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

namespace quorvel {
namespace {

using std::nullopt;

TEST(CgroupQuotaTest, CpuMaxRoundsTheQuotaUpToWholeCpusAndRefusesOtherText) {
  const struct {
    std::string_view text;
    std::optional<std::uint64_t> cpus;
  } cases[] = {
      {"max 100000\n", nullopt},   {"150000 100000\n", 2}, {"50000 100000\n", 1},
      {"200000 100000", 2},        {"100001 100000", 2},   {"400000 50000\n", 8},
      {"", nullopt},               {"max", nullopt},       {"150000", nullopt},
      {"abc 100000", nullopt},     {"1.5 100000", nullopt}, {"150000 100000 7", nullopt},
      {"150000  100000", nullopt}, {"-5 100000", nullopt}, {"150000 0", nullopt},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(parse_cgroup_v2_cpu_max(c.text), c.cpus) << '"' << c.text << '"';
  }
}

TEST(CgroupQuotaTest, V1QuotaOfMinusOneIsNoLimitAndOthersRoundUp) {
  EXPECT_EQ(parse_cgroup_v1_cpu_quota("-1\n", "100000\n"), nullopt);
  EXPECT_EQ(parse_cgroup_v1_cpu_quota("150000\n", "100000\n"), 2u);
  EXPECT_EQ(parse_cgroup_v1_cpu_quota("50000\n", "100000\n"), 1u);
  EXPECT_EQ(parse_cgroup_v1_cpu_quota("300000", "100000"), 3u);
  EXPECT_EQ(parse_cgroup_v1_cpu_quota("", "100000\n"), nullopt);
  EXPECT_EQ(parse_cgroup_v1_cpu_quota("150000\n", "x\n"), nullopt);
  EXPECT_EQ(parse_cgroup_v1_cpu_quota("150000\n", "0\n"), nullopt);
}

// A hybrid system: v1 controllers plus an empty v2 hierarchy.
constexpr std::string_view kHybridCgroup =
    "9:name=systemd:/\n8:pids:/\n3:cpuset:/\n2:cpuacct:/\n1:cpu:/\n0::/\n";
constexpr std::string_view kHybridMountinfo =
    "30 22 0:27 / /sys/fs/cgroup rw,relatime - tmpfs tmpfs rw,mode=755\n"
    "31 30 0:28 / /sys/fs/cgroup/cpu rw,relatime - cgroup cgroup rw,cpu\n"
    "32 30 0:29 / /sys/fs/cgroup/cpuacct rw,relatime - cgroup cgroup rw,cpuacct\n"
    "33 30 0:30 / /sys/fs/cgroup/cpuset rw,relatime - cgroup cgroup rw,cpuset\n"
    "40 30 0:37 / /sys/fs/cgroup/unified rw,relatime - cgroup2 cgroup2 rw\n";

TEST(CgroupLocationTest, ProcSelfCgroupGivesTheV2PathAndTheV1PathOfTheCpuController) {
  EXPECT_EQ(cgroup_v2_path(kHybridCgroup), "/");
  EXPECT_EQ(cgroup_v1_path(kHybridCgroup, "cpu"), "/");

  const std::string_view docker_v1 =
      "12:cpuset:/docker/4f1e\n11:cpu,cpuacct:/docker/4f1e\n1:name=systemd:/docker/4f1e\n";
  EXPECT_EQ(cgroup_v1_path(docker_v1, "cpu"), "/docker/4f1e");
  EXPECT_EQ(cgroup_v2_path(docker_v1), nullopt);

  const std::string_view v2_only = "0::/user.slice/user-1000.slice/session-2.scope\n";
  EXPECT_EQ(cgroup_v2_path(v2_only), "/user.slice/user-1000.slice/session-2.scope");
  EXPECT_EQ(cgroup_v1_path(v2_only, "cpu"), nullopt);

  // cpuacct and cpuset are other controllers; a path may hold colons.
  EXPECT_EQ(cgroup_v1_path("3:cpuset:/a\n2:cpuacct:/b\n", "cpu"), nullopt);
  EXPECT_EQ(cgroup_v2_path("0::/odd:name\n"), "/odd:name");
  EXPECT_EQ(cgroup_v2_path("garbage\n\n"), nullopt);
}

TEST(CgroupLocationTest, MountinfoGivesTheCgroup2MountAndTheV1MountCarryingCpu) {
  const std::optional<CgroupMount> v2 = cgroup_v2_mount(kHybridMountinfo);
  ASSERT_TRUE(v2);
  EXPECT_EQ(v2->root, "/");
  EXPECT_EQ(v2->mount_point, "/sys/fs/cgroup/unified");
  const std::optional<CgroupMount> v1 = cgroup_v1_mount(kHybridMountinfo, "cpu");
  ASSERT_TRUE(v1);
  EXPECT_EQ(v1->mount_point, "/sys/fs/cgroup/cpu");

  // Optional fields before the dash, a container's own cgroup as the root, an
  // escaped space, and cpu sharing its hierarchy with cpuacct.
  const std::string_view container =
      "29 23 0:26 /docker/4f1e /sys/fs/cgroup rw,nosuid shared:4 master:1 - cgroup2 cgroup2 rw,nsdelegate\n"
      "35 23 0:31 / /my\\040cgroups/cpu,cpuacct rw - cgroup cgroup rw,cpu,cpuacct\n";
  const std::optional<CgroupMount> nested = cgroup_v2_mount(container);
  ASSERT_TRUE(nested);
  EXPECT_EQ(nested->root, "/docker/4f1e");
  EXPECT_EQ(nested->mount_point, "/sys/fs/cgroup");
  const std::optional<CgroupMount> shared = cgroup_v1_mount(container, "cpu");
  ASSERT_TRUE(shared);
  EXPECT_EQ(shared->mount_point, "/my cgroups/cpu,cpuacct");

  EXPECT_FALSE(cgroup_v1_mount(kHybridMountinfo, "blkio"));
  EXPECT_FALSE(cgroup_v2_mount("1 2 0:1 / /x rw - cgroup2\n"));  // no source, no options
}

TEST(CgroupLocationTest, CgroupDirectoryIsThePathBelowTheMountedRoot) {
  const CgroupMount whole{"/", "/sys/fs/cgroup"};
  EXPECT_EQ(cgroup_directory(whole, "/"), "/sys/fs/cgroup");
  EXPECT_EQ(cgroup_directory(whole, "/a/b"), "/sys/fs/cgroup/a/b");

  const CgroupMount container{"/docker/4f1e", "/sys/fs/cgroup"};
  EXPECT_EQ(cgroup_directory(container, "/docker/4f1e"), "/sys/fs/cgroup");
  EXPECT_EQ(cgroup_directory(container, "/docker/4f1e/worker"), "/sys/fs/cgroup/worker");
  EXPECT_EQ(cgroup_directory(container, "/docker/4f1ea"), nullopt);
  EXPECT_EQ(cgroup_directory(container, "/"), nullopt);
  EXPECT_EQ(cgroup_directory(whole, "/../.."), nullopt);
}

// A cgroup tree in a temporary directory, found through texts that point at it.
class CgroupTreeTest : public testing::Test {
 protected:
  void SetUp() override {
    root_ = std::filesystem::path(testing::TempDir()) /
            ("usable_cpus_" + std::string(testing::UnitTest::GetInstance()->current_test_info()->name()));
    std::filesystem::remove_all(root_);
    std::filesystem::create_directories(root_ / "v2/slice/job");
    std::filesystem::create_directories(root_ / "v1/slice/job");
  }
  void TearDown() override { std::filesystem::remove_all(root_); }

  void write(const std::string& relative, std::string_view text) const {
    std::ofstream(root_ / relative) << text;
  }
  std::string mountinfo() const {
    return "40 30 0:37 / " + (root_ / "v2").string() + " rw - cgroup2 cgroup2 rw\n" +
           "31 30 0:28 / " + (root_ / "v1").string() + " rw - cgroup cgroup rw,cpu,cpuacct\n";
  }

  static constexpr std::string_view kInJob = "1:cpu,cpuacct:/slice/job\n0::/slice/job\n";
  std::filesystem::path root_;
};

TEST_F(CgroupTreeTest, SmallestQuotaOfTheCgroupAndItsAncestorsCounts) {
  EXPECT_EQ(cgroup_cpu_limit(kInJob, mountinfo()), nullopt);  // no quota files at all

  write("v2/slice/job/cpu.max", "max 100000\n");
  write("v2/slice/cpu.max", "300000 100000\n");
  EXPECT_EQ(cgroup_cpu_limit(kInJob, mountinfo()), 3u);
  write("v2/cpu.max", "150000 100000\n");
  EXPECT_EQ(cgroup_cpu_limit(kInJob, mountinfo()), 2u);

  write("v1/slice/job/cpu.cfs_quota_us", "50000\n");
  EXPECT_EQ(cgroup_cpu_limit(kInJob, mountinfo()), 2u);  // a quota without its period sets no limit
  write("v1/slice/job/cpu.cfs_period_us", "100000\n");
  EXPECT_EQ(cgroup_cpu_limit(kInJob, mountinfo()), 1u);

  // A cgroup outside the mounted part of the tree is not looked up.
  EXPECT_EQ(cgroup_cpu_limit("0::/../elsewhere\n", mountinfo()), nullopt);
}

TEST(UsableCpusTest, CountLiesBetweenOneAndTheLogicalProcessors) {
  const std::uint64_t cpus = usable_cpu_count();
  EXPECT_GE(cpus, 1u);
  if (std::thread::hardware_concurrency() != 0) {
    EXPECT_LE(cpus, std::thread::hardware_concurrency());
  }
}

TEST(OversubscriptionWarningTest, NamesBothCountsOnlyWhenThreadsExceedTheCpus) {
  EXPECT_EQ(oversubscription_warning(8, 2),
            "Warning: 8 threads but this process may use only 2 CPUs (affinity mask and CPU quota); every step "
            "waits for threads without a core: set num_threads=2");
  EXPECT_EQ(oversubscription_warning(3, 1),
            "Warning: 3 threads but this process may use only 1 CPU (affinity mask and CPU quota); every step "
            "waits for threads without a core: set num_threads=1");
  EXPECT_EQ(oversubscription_warning(2, 2), nullopt);
  EXPECT_EQ(oversubscription_warning(1, 2), nullopt);
  EXPECT_EQ(oversubscription_warning(4, 0), nullopt);  // count unknown
}

}  // namespace
}  // namespace quorvel
