#include "runtime/usable_cpus.h"

#include <algorithm>
#include <bit>
#include <charconv>
#include <fstream>
#include <iterator>
#include <thread>
#include <vector>

#if defined(_WIN32)
#ifndef NOMINMAX
#define NOMINMAX
#endif
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#include <windows.h>
#elif defined(__linux__)
#include <sched.h>

#include <cerrno>
#include <memory>
#endif

namespace quorvel {
namespace {

std::string_view trim(std::string_view text) {
  constexpr std::string_view kSpace = " \t\r\n";
  const std::size_t first = text.find_first_not_of(kSpace);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kSpace) - first + 1);
}

std::optional<std::int64_t> parse_int(std::string_view text) {
  std::int64_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

// The pieces of `text` between `separator`s, empty pieces included.
std::vector<std::string_view> split(std::string_view text, char separator) {
  std::vector<std::string_view> pieces;
  for (;;) {
    const std::size_t at = text.find(separator);
    pieces.push_back(text.substr(0, at));
    if (at == std::string_view::npos) return pieces;
    text.remove_prefix(at + 1);
  }
}

bool list_contains(std::string_view comma_list, std::string_view item) {
  const std::vector<std::string_view> items = split(comma_list, ',');
  return std::find(items.begin(), items.end(), item) != items.end();
}

// mountinfo writes space, tab, line feed and backslash in paths as \ooo.
std::string unescape_octal(std::string_view field) {
  std::string out;
  for (std::size_t i = 0; i < field.size(); ++i) {
    const auto is_octal = [&](std::size_t k) { return k < field.size() && field[k] >= '0' && field[k] <= '7'; };
    if (field[i] == '\\' && is_octal(i + 1) && is_octal(i + 2) && is_octal(i + 3)) {
      out.push_back(static_cast<char>((field[i + 1] - '0') * 64 + (field[i + 2] - '0') * 8 + (field[i + 3] - '0')));
      i += 3;
    } else {
      out.push_back(field[i]);
    }
  }
  return out;
}

// The first mountinfo entry whose file system type and super options satisfy
// `wanted`. A line reads "id parent dev root mount-point options [optional
// fields...] - fstype source super-options".
template <typename Wanted>
std::optional<CgroupMount> find_mount(std::string_view mountinfo, Wanted wanted) {
  for (const std::string_view line : split(mountinfo, '\n')) {
    const std::vector<std::string_view> fields = split(line, ' ');
    const auto dash = std::find(fields.begin(), fields.end(), "-");
    if (dash - fields.begin() < 6 || fields.end() - dash < 4) continue;
    if (wanted(dash[1], dash[3])) return CgroupMount{unescape_octal(fields[3]), unescape_octal(fields[4])};
  }
  return std::nullopt;
}

// The path field of the first /proc/self/cgroup line whose hierarchy id and
// controller list satisfy `wanted`. The path itself may contain colons.
template <typename Wanted>
std::optional<std::string> find_cgroup_path(std::string_view proc_self_cgroup, Wanted wanted) {
  for (const std::string_view line : split(proc_self_cgroup, '\n')) {
    const std::size_t first_colon = line.find(':');
    if (first_colon == std::string_view::npos) continue;
    const std::size_t second_colon = line.find(':', first_colon + 1);
    if (second_colon == std::string_view::npos) continue;
    const std::string_view controllers = line.substr(first_colon + 1, second_colon - first_colon - 1);
    if (wanted(line.substr(0, first_colon), controllers)) return std::string(line.substr(second_colon + 1));
  }
  return std::nullopt;
}

std::uint64_t hardware_cpu_count() { return std::max(1u, std::thread::hardware_concurrency()); }

// A missing or unreadable file reads as nullopt: it sets no limit.
std::optional<std::string> read_file(const std::string& path) {
  std::ifstream in(path);
  if (!in) return std::nullopt;
  std::string text{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  if (in.bad()) return std::nullopt;
  return text;
}

#if defined(__linux__)
// A mask that does not fit the set makes sched_getaffinity fail with EINVAL,
// so the set grows until it fits.
std::uint64_t affinity_cpu_count() {
  for (int cpus = 1024; cpus <= (1 << 22); cpus *= 2) {
    const std::unique_ptr<cpu_set_t, void (*)(cpu_set_t*)> set(CPU_ALLOC(cpus), [](cpu_set_t* s) { CPU_FREE(s); });
    if (!set) break;
    const std::size_t size = CPU_ALLOC_SIZE(cpus);
    CPU_ZERO_S(size, set.get());
    if (sched_getaffinity(0, size, set.get()) == 0) {
      const int count = CPU_COUNT_S(size, set.get());
      return count > 0 ? static_cast<std::uint64_t>(count) : hardware_cpu_count();
    }
    if (errno != EINVAL) break;
  }
  return hardware_cpu_count();
}
#endif

// A quota on any ancestor also limits the process, so the smallest limit from
// the process's cgroup up to the mounted root counts.
template <typename ReadLimit>
std::optional<std::uint64_t> smallest_limit_up_the_tree(const CgroupMount& mount, std::string_view path,
                                                        ReadLimit read_limit) {
  std::optional<std::string> directory = cgroup_directory(mount, path);
  if (!directory) return std::nullopt;
  std::optional<std::uint64_t> smallest;
  for (;;) {
    const std::optional<std::uint64_t> limit = read_limit(*directory);
    if (limit && (!smallest || *limit < *smallest)) smallest = limit;
    // Below the mount point the directory is mount_point + "/a/b...".
    if (directory->size() <= mount.mount_point.size()) return smallest;
    directory->resize(directory->rfind('/'));
  }
}

std::optional<std::uint64_t> cgroup_v2_limit(std::string_view proc_self_cgroup, std::string_view mountinfo) {
  const std::optional<std::string> path = cgroup_v2_path(proc_self_cgroup);
  const std::optional<CgroupMount> mount = cgroup_v2_mount(mountinfo);
  if (!path || !mount) return std::nullopt;
  return smallest_limit_up_the_tree(*mount, *path, [](const std::string& directory) -> std::optional<std::uint64_t> {
    const std::optional<std::string> cpu_max = read_file(directory + "/cpu.max");
    return cpu_max ? parse_cgroup_v2_cpu_max(*cpu_max) : std::nullopt;
  });
}

std::optional<std::uint64_t> cgroup_v1_limit(std::string_view proc_self_cgroup, std::string_view mountinfo) {
  const std::optional<std::string> path = cgroup_v1_path(proc_self_cgroup, "cpu");
  const std::optional<CgroupMount> mount = cgroup_v1_mount(mountinfo, "cpu");
  if (!path || !mount) return std::nullopt;
  return smallest_limit_up_the_tree(*mount, *path, [](const std::string& directory) -> std::optional<std::uint64_t> {
    const std::optional<std::string> quota = read_file(directory + "/cpu.cfs_quota_us");
    const std::optional<std::string> period = read_file(directory + "/cpu.cfs_period_us");
    return quota && period ? parse_cgroup_v1_cpu_quota(*quota, *period) : std::nullopt;
  });
}

}  // namespace

std::optional<std::uint64_t> cgroup_cpu_limit(std::string_view proc_self_cgroup, std::string_view mountinfo) {
  const std::optional<std::uint64_t> v2 = cgroup_v2_limit(proc_self_cgroup, mountinfo);
  const std::optional<std::uint64_t> v1 = cgroup_v1_limit(proc_self_cgroup, mountinfo);
  if (v2 && v1) return std::min(*v2, *v1);
  return v2 ? v2 : v1;
}

std::uint64_t usable_cpu_count() {
#if defined(_WIN32)
  DWORD_PTR process_mask = 0;
  DWORD_PTR system_mask = 0;
  if (GetProcessAffinityMask(GetCurrentProcess(), &process_mask, &system_mask) && process_mask != 0) {
    return static_cast<std::uint64_t>(std::popcount(static_cast<std::uint64_t>(process_mask)));
  }
  return hardware_cpu_count();
#elif defined(__linux__)
  const std::uint64_t cpus = affinity_cpu_count();
  const std::optional<std::string> proc_self_cgroup = read_file("/proc/self/cgroup");
  const std::optional<std::string> mountinfo = read_file("/proc/self/mountinfo");
  const std::optional<std::uint64_t> quota =
      proc_self_cgroup && mountinfo ? cgroup_cpu_limit(*proc_self_cgroup, *mountinfo) : std::nullopt;
  return std::max<std::uint64_t>(1, quota ? std::min(cpus, *quota) : cpus);
#else
  return hardware_cpu_count();
#endif
}

std::optional<std::string> oversubscription_warning(std::uint64_t threads, std::uint64_t usable_cpus) {
  if (usable_cpus == 0 || threads <= usable_cpus) return std::nullopt;
  const std::string cpus = std::to_string(usable_cpus) + (usable_cpus == 1 ? " CPU" : " CPUs");
  return "Warning: " + std::to_string(threads) + " threads but this process may use only " + cpus +
         " (affinity mask and CPU quota); every step waits for threads without a core: set num_threads=" +
         std::to_string(usable_cpus);
}

std::optional<std::uint64_t> cpus_for_quota(std::int64_t quota, std::int64_t period) {
  if (quota <= 0 || period <= 0) return std::nullopt;
  return static_cast<std::uint64_t>(quota / period + (quota % period != 0 ? 1 : 0));
}

std::optional<std::uint64_t> parse_cgroup_v2_cpu_max(std::string_view text) {
  const std::vector<std::string_view> fields = split(trim(text), ' ');
  if (fields.size() != 2 || fields[0] == "max") return std::nullopt;
  const std::optional<std::int64_t> quota = parse_int(fields[0]);
  const std::optional<std::int64_t> period = parse_int(fields[1]);
  if (!quota || !period) return std::nullopt;
  return cpus_for_quota(*quota, *period);
}

std::optional<std::uint64_t> parse_cgroup_v1_cpu_quota(std::string_view quota_text, std::string_view period_text) {
  const std::optional<std::int64_t> quota = parse_int(trim(quota_text));
  const std::optional<std::int64_t> period = parse_int(trim(period_text));
  if (!quota || !period) return std::nullopt;
  return cpus_for_quota(*quota, *period);
}

std::optional<std::string> cgroup_v2_path(std::string_view proc_self_cgroup) {
  return find_cgroup_path(proc_self_cgroup, [](std::string_view hierarchy, std::string_view controllers) {
    return hierarchy == "0" && controllers.empty();
  });
}

std::optional<std::string> cgroup_v1_path(std::string_view proc_self_cgroup, std::string_view controller) {
  return find_cgroup_path(proc_self_cgroup, [&](std::string_view hierarchy, std::string_view controllers) {
    return hierarchy != "0" && list_contains(controllers, controller);
  });
}

std::optional<CgroupMount> cgroup_v2_mount(std::string_view mountinfo) {
  return find_mount(mountinfo, [](std::string_view fstype, std::string_view) { return fstype == "cgroup2"; });
}

std::optional<CgroupMount> cgroup_v1_mount(std::string_view mountinfo, std::string_view controller) {
  return find_mount(mountinfo, [&](std::string_view fstype, std::string_view super_options) {
    return fstype == "cgroup" && list_contains(super_options, controller);
  });
}

std::optional<std::string> cgroup_directory(const CgroupMount& mount, std::string_view path) {
  // A process outside the cgroup namespace it looks from sees "/../..".
  const std::vector<std::string_view> components = split(path, '/');
  if (std::find(components.begin(), components.end(), "..") != components.end()) return std::nullopt;
  std::string_view root = mount.root;
  if (root.ends_with('/')) root.remove_suffix(1);  // "/" becomes "", the prefix of every path
  if (!path.starts_with(root)) return std::nullopt;
  std::string_view below = path.substr(root.size());
  if (!below.empty() && below.front() != '/') return std::nullopt;  // "/a" is not above "/ab"
  if (below.ends_with('/')) below.remove_suffix(1);
  return mount.mount_point + std::string(below);
}

}  // namespace quorvel
