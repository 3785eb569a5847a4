#include "runtime/kernel_base.h"
#include "runtime/scalar/portable_kernels.h"

namespace quorvel::kernels {

// Chosen once, under the thread-safe static guard; read-only afterwards.
const KernelBase& kernels() {
  static const PortableKernels instance;
  return instance;
}

}  // namespace quorvel::kernels
