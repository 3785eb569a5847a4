// The AVX-VNNI kernel set: every family of overrides instantiated with the
// AVX-VNNI lane trait, here alone (this file is compiled with -mavx2 -mfma
// -mf16c -mavxvnni).
#include "runtime/x86/avx_vnni_isa.h"
#include "runtime/x86/x86_kernel_families.h"

namespace quorvel::kernels::x86 {

template class X86Kernels<avx_vnni::Isa>;

}  // namespace quorvel::kernels::x86
