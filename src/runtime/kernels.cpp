#include "runtime/kernel_base.h"
#include "runtime/kernel_sets.h"

namespace quorvel::kernels {

// Chosen once, under the thread-safe static guard, from the processor's
// features; read-only afterwards. Nothing below this point checks the
// processor again.
const KernelBase& kernels() {
  static const std::unique_ptr<KernelBase> instance = preferred_kernel_set().make();
  return *instance;
}

}  // namespace quorvel::kernels
