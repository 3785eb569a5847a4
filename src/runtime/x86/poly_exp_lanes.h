// The polynomial exponential (runtime/poly_exp.h) on a vector of any width:
// the same clamp, the same float steps and the same fused multiply-adds from
// the innermost term out, so every lane gives the scalar function's bits.
// V is a lane vocabulary such as avx2::F32x8.
#pragma once

namespace quorvel::kernels::x86::lanes {

template <typename V>
typename V::Reg poly_exp(typename V::Reg x) {
  using Reg = typename V::Reg;
  const Reg log2e = V::set1(__builtin_bit_cast(float, 0x3FB8AA3Bu));
  const Reg c3 = V::set1(__builtin_bit_cast(float, 0x3D64AD4Cu));
  const Reg c2 = V::set1(__builtin_bit_cast(float, 0x3E75EAD4u));
  const Reg c1 = V::set1(__builtin_bit_cast(float, 0x3F318008u));
  const Reg c0 = V::set1(__builtin_bit_cast(float, 0x3F7FFB19u));
  // The scalar clamp: above 88 becomes 88, then below -87 becomes -87; a NaN
  // stays NaN (the vector min and max return their second operand for it).
  Reg t = V::min(V::set1(88.0f), x);
  t = V::max(V::set1(-87.0f), t);
  t = t * log2e;
  const Reg n = V::floor(t + V::set1(0.5f));
  const Reg f = t - n;
  Reg p = V::fma(f, c3, c2);
  p = V::fma(f, p, c1);
  p = V::fma(f, p, c0);
  return p * V::pow2(n);
}

}  // namespace quorvel::kernels::x86::lanes
