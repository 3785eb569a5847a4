#include <fstream>

#include "host/processor_name.h"

namespace quorvel::host {

std::string processor_name() {
  std::ifstream cpuinfo("/proc/cpuinfo");
  return processor_name_from_cpuinfo(cpuinfo);
}

}  // namespace quorvel::host
