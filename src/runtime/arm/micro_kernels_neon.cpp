// The baseline micro-kernel table (ARMv8-A), over WideningSums.
#include "runtime/arm/micro_kernel_table.h"
#include "runtime/arm/neon_micro_kernels.h"
#include "runtime/arm/neon_widening_sums.h"

namespace quorvel::kernels::arm {

constinit const MicroKernelTable kBaselineMicroKernels = micro_kernels_with<WideningSums>("neon");

}  // namespace quorvel::kernels::arm
