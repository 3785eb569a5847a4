#include <windows.h>

#include <bit>
#include <stdexcept>

#include "host/cpu_affinity.h"

namespace quorvel::host {

int last_usable_cpu() {
  DWORD_PTR process_mask = 0, system_mask = 0;
  if (!GetProcessAffinityMask(GetCurrentProcess(), &process_mask, &system_mask)) {
    throw std::runtime_error("cannot read this process's CPUs");
  }
  if (process_mask == 0) throw std::runtime_error("this process may use no CPU");
  return static_cast<int>(std::bit_width(static_cast<unsigned long long>(process_mask))) - 1;
}

bool pin_this_thread_to(int cpu) {
  return SetThreadAffinityMask(GetCurrentThread(), DWORD_PTR{1} << cpu) != 0;
}

}  // namespace quorvel::host
