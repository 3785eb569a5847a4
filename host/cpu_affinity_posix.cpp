#include <sched.h>

#include <stdexcept>

#include "host/cpu_affinity.h"

namespace quorvel::host {

int last_usable_cpu() {
  cpu_set_t usable;
  if (sched_getaffinity(0, sizeof usable, &usable) != 0) throw std::runtime_error("cannot read this process's CPUs");
  for (int cpu = CPU_SETSIZE - 1; cpu >= 0; --cpu) {
    if (CPU_ISSET(cpu, &usable)) return cpu;
  }
  throw std::runtime_error("this process may use no CPU");
}

bool pin_this_thread_to(int cpu) {
  cpu_set_t one;
  CPU_ZERO(&one);
  CPU_SET(cpu, &one);
  return sched_setaffinity(0, sizeof one, &one) == 0;
}

}  // namespace quorvel::host
