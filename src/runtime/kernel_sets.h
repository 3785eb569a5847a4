// The kernel sets this build carries, so that the accessor, the conformance
// tests and the benchmarks all see the same list. Each entry can say whether
// the running processor can execute it and construct a fresh instance, which
// lets a test compare every supported set with the portable one directly.
#pragma once

#include <memory>
#include <span>

#include "runtime/kernel_base.h"

namespace quorvel::kernels {

struct KernelSet {
  const char* name;                         // equals the set's name()
  bool (*supported)();                      // true when this processor (and its OS) can run the set
  std::unique_ptr<KernelBase> (*make)();    // a new instance of the set
};

// Every set of this build, most preferred first. The portable set is last
// and is supported everywhere.
std::span<const KernelSet> kernel_sets();

// The first set of kernel_sets() that this processor supports.
const KernelSet& preferred_kernel_set();

}  // namespace quorvel::kernels
