// Rounding helpers shared by kernels, host code and test references. Parts of
// the library round differently on purpose; each rule has its own name.
#pragma once
#include <stdint.h>
#include <string.h>

#if !defined(QHD)
#define QHD inline
#endif

namespace quillon::num {

// Storage of one bfloat16: its bits. Kernels templated on an element type
// take this, never a bare uint16_t, so the element kind shows in the name.
struct bf16 {
  uint16_t bits;
};

QHD float bits_to_float(uint32_t u) { return __builtin_bit_cast(float, u); }
QHD uint32_t float_to_bits(float f) { return __builtin_bit_cast(uint32_t, f); }

// bf16 widens by placing its bits in the high half of a float.
QHD float bf16_to_float(uint16_t h) { return bits_to_float((uint32_t)h << 16); }

// Round to nearest even on the bits, no NaN case: a NaN may round to infinity
// or to another NaN exactly as the bit arithmetic says.
QHD uint16_t bf16_rne(float f) {
  uint32_t u = float_to_bits(f);
  return (uint16_t)((u + 0x7fffu + ((u >> 16) & 1u)) >> 16);
}
// Round to nearest even, NaN kept a (quiet) NaN.
QHD uint16_t bf16_rne_quiet(float f) {
  uint32_t u = float_to_bits(f);
  if ((u & 0x7fffffffu) > 0x7f800000u) return (uint16_t)((u >> 16) | 0x0040u);
  return (uint16_t)((u + 0x7fffu + ((u >> 16) & 1u)) >> 16);
}
// Dequantised weights: round half away on the magnitude by adding 0x8000.
QHD uint16_t bf16_round_dequant(float f) { return (uint16_t)((float_to_bits(f) + 0x8000u) >> 16); }

// binary16 to float, exact for every input (subnormals become normal floats),
// in integer arithmetic so no denormal mode of either flavour can change it.
QHD float f16_to_float(uint16_t h) {
  const uint32_t sign = (uint32_t)(h & 0x8000u) << 16;
  const uint32_t e = (h >> 10) & 0x1fu, m = h & 0x3ffu;
  if (e == 0x1fu) return bits_to_float(sign | 0x7f800000u | (m << 13));
  if (e != 0) return bits_to_float(sign | ((e + 112u) << 23) | (m << 13));
  return bits_to_float(sign | float_to_bits((float)m * 5.9604644775390625e-8f));  // m * 2^-24
}

// fp8 e4m3 weight byte to bf16 bits with no table: exponent and mantissa move
// into place and rebias by 120. Exponent field 0 is not subnormal here, and
// 0x00 / 0x80 are zeros of their sign.
QHD uint16_t fp8_e4m3_to_bf16(uint32_t x) {
  const uint32_t sign = (x & 0x80u) << 8, m = x & 0x7fu;
  return (uint16_t)(m ? (sign | ((m << 4) + 0x3c00u)) : sign);
}

}  // namespace quillon::num
