// The x86 kernel sets' destructors and plain answers, compiled without
// instruction-set flags (x86_kernels.h).
#include "runtime/x86/x86_kernels.h"

namespace quorvel::kernels::x86 {

template <typename Isa>
X86Kernels<Isa>::~X86Kernels() = default;

template X86Kernels<avx2::Isa>::~X86Kernels();
template X86Kernels<avx_vnni::Isa>::~X86Kernels();
template X86Kernels<avx512::Isa>::~X86Kernels();

// Every x86 set multiplies q1_0_128 tiles faster than plain rows (no
// reduction across lanes, no gathered scales).
template <typename Isa>
bool X86Kernels<Isa>::tiles_q1_0_rows() const {
  return true;
}

template bool X86Kernels<avx2::Isa>::tiles_q1_0_rows() const;
template bool X86Kernels<avx_vnni::Isa>::tiles_q1_0_rows() const;
template bool X86Kernels<avx512::Isa>::tiles_q1_0_rows() const;

}  // namespace quorvel::kernels::x86
