// The x86 kernel sets' destructors, compiled without instruction-set flags
// (x86_kernels.h).
#include "runtime/x86/x86_kernels.h"

namespace quorvel::kernels::x86 {

template <typename Isa>
X86Kernels<Isa>::~X86Kernels() = default;

template X86Kernels<avx2::Isa>::~X86Kernels();
template X86Kernels<avx_vnni::Isa>::~X86Kernels();
template X86Kernels<avx512::Isa>::~X86Kernels();

}  // namespace quorvel::kernels::x86
