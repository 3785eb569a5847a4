#include "runtime/x86/avx512_kernels.h"

namespace quorvel::kernels::x86 {

const char* Avx512Kernels::name() const { return "avx512"; }

}  // namespace quorvel::kernels::x86
