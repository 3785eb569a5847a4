// Which CPUs this process may run on, and pinning a thread to one of them
// (cpu_affinity_posix.cpp: sched_getaffinity; cpu_affinity_windows.cpp: the
// affinity masks of this process's processor group).
#pragma once

namespace quorvel::host {

// The highest-numbered CPU this process may use. Throws std::runtime_error
// when the system does not say.
int last_usable_cpu();

// Pins the calling thread to `cpu`; best effort: false when the system refused.
bool pin_this_thread_to(int cpu);

}  // namespace quorvel::host
