// How many CPUs this process may actually run on, and the start-up warning
// for a thread count above it. The pool waits for every thread on every
// dispatch, so threads beyond the usable CPUs slow each step down.
//
// The text parsers are pure functions so that tests can feed them the
// contents of /proc and cgroup files.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace quorvel {

// The CPUs this process may run on: on Linux the smaller of the affinity mask
// and the cgroup CPU quota (v2 or v1, over the process's cgroup and its
// ancestors); on Windows the process affinity mask; elsewhere the number of
// logical processors. At least 1.
std::uint64_t usable_cpu_count();

// "Warning: ..." (one line, no line feed) naming both counts when `threads`
// exceeds `usable_cpus`; nullopt otherwise.
std::optional<std::string> oversubscription_warning(std::uint64_t threads, std::uint64_t usable_cpus);

// A quota of `quota` microseconds per `period` as whole CPUs, rounded up;
// nullopt unless both are positive.
std::optional<std::uint64_t> cpus_for_quota(std::int64_t quota, std::int64_t period);

// The CPU limit in a cgroup v2 "cpu.max" text ("150000 100000" -> 2); nullopt
// for "max <period>" (no quota) and for text that is not "<quota> <period>".
std::optional<std::uint64_t> parse_cgroup_v2_cpu_max(std::string_view text);

// The CPU limit from the texts of cgroup v1 "cpu.cfs_quota_us" and
// "cpu.cfs_period_us"; nullopt for quota -1 (no quota) and for unreadable
// numbers.
std::optional<std::uint64_t> parse_cgroup_v1_cpu_quota(std::string_view quota_text, std::string_view period_text);

// The process's cgroup path in a /proc/self/cgroup text
// ("hierarchy:controllers:path" lines): the v2 entry is "0::<path>"; a v1
// entry is the one whose comma-separated controllers include `controller`.
std::optional<std::string> cgroup_v2_path(std::string_view proc_self_cgroup);
std::optional<std::string> cgroup_v1_path(std::string_view proc_self_cgroup, std::string_view controller);

// Where a cgroup hierarchy is mounted: the cgroup path that the mount shows
// (its root) and the directory it is mounted on.
struct CgroupMount {
  std::string root;
  std::string mount_point;
};

// The cgroup2 mount, or the v1 mount carrying `controller`, in a
// /proc/self/mountinfo text.
std::optional<CgroupMount> cgroup_v2_mount(std::string_view mountinfo);
std::optional<CgroupMount> cgroup_v1_mount(std::string_view mountinfo, std::string_view controller);

// The smallest CPU quota on the cgroups (v2 and v1) that these texts place the
// process in, or on their ancestors, read from the quota files under the
// mount points; nullopt when none sets a limit.
std::optional<std::uint64_t> cgroup_cpu_limit(std::string_view proc_self_cgroup, std::string_view mountinfo);

// The directory of cgroup `path` under `mount`; nullopt when the path lies
// outside the mounted part of the hierarchy or climbs out with "..".
std::optional<std::string> cgroup_directory(const CgroupMount& mount, std::string_view path);

}  // namespace quorvel
