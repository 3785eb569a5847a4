// The AVX-512 kernel set: every family of overrides instantiated with the
// AVX-512 lane trait, here alone (this file is compiled with the AVX-512
// F/BW/VL/VNNI flags).
#include "runtime/x86/avx512_isa.h"
#include "runtime/x86/x86_kernel_families.h"

namespace quorvel::kernels::x86 {

template class X86Kernels<avx512::Isa>;

}  // namespace quorvel::kernels::x86
