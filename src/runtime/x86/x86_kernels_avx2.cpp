// The AVX2 kernel set: every family of overrides instantiated with the AVX2
// lane trait, here alone (this file is compiled with -mavx2 -mfma -mf16c).
#include "runtime/x86/avx2_isa.h"
#include "runtime/x86/x86_kernel_families.h"

namespace quorvel::kernels::x86 {

template class X86Kernels<avx2::Isa>;

}  // namespace quorvel::kernels::x86
