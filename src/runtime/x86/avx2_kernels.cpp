#include "runtime/x86/avx2_kernels.h"

namespace quorvel::kernels::x86 {

const char* Avx2Kernels::name() const { return "avx2"; }

}  // namespace quorvel::kernels::x86
