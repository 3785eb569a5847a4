// One instance of every kernel set this processor runs, for the benchmarks
// that put the sets side by side.
#pragma once

#include <memory>
#include <vector>

#include "runtime/kernel_base.h"
#include "runtime/kernel_sets.h"

inline std::vector<std::unique_ptr<quorvel::kernels::KernelBase>> runnable_kernel_sets() {
  std::vector<std::unique_ptr<quorvel::kernels::KernelBase>> sets;
  for (const quorvel::kernels::KernelSet& set : quorvel::kernels::kernel_sets()) {
    if (set.supported()) sets.push_back(set.make());
  }
  return sets;
}
