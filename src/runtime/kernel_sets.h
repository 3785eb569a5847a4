// The kernel sets this build carries, so that the accessor, the conformance
// tests and the benchmarks all see the same list. Each entry can say whether
// the running processor can execute it and construct a fresh instance, which
// lets a test compare every supported set with the portable one directly.
#pragma once

#include <memory>
#include <span>
#include <string>
#include <string_view>

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

// The set to construct: the one named `forced` when that is not empty, else
// the first supported one of `sets`. A name that is none of `sets`, or names
// a set this processor cannot run, chooses nothing; `error` is then the
// one-line "Error: ..." refusal naming it and the sets the processor runs.
struct KernelSetChoice {
  const KernelSet* set = nullptr;
  std::string error;
};
KernelSetChoice choose_kernel_set(std::span<const KernelSet> sets, std::string_view forced);

// This process's choice, which the accessor constructs: choose_kernel_set
// over kernel_sets() with the environment variable QUORVEL_KERNEL_SET (unset
// or empty: the preferred set), read once, on the first call.
const KernelSetChoice& chosen_kernel_set();

}  // namespace quorvel::kernels
