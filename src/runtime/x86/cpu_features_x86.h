// Whether the processor, and the operating system's saved register state,
// allow the x86-64 kernel sets. Compiled without extra instruction-set flags:
// these run before any set is chosen.
#pragma once

namespace quorvel::kernels::x86 {

// AVX2 + FMA + F16C, with the OS saving the YMM state.
bool cpu_runs_avx2_set();
// The AVX2 set's features plus AVX-VNNI (the VEX-encoded byte dot product).
bool cpu_runs_avx_vnni_set();
// The AVX2 set's features plus AVX-512 F/BW/VL/VNNI, with the OS saving the
// opmask and full ZMM state.
bool cpu_runs_avx512_set();

}  // namespace quorvel::kernels::x86
