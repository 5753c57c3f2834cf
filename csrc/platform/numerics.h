// Rounding helpers shared by kernels, host code and test references. Parts of
// the library round differently on purpose; each rule has its own name.
#pragma once
#include <stdint.h>
#include <string.h>

#if !defined(QHD)
#define QHD inline
#endif

namespace quillon::num {

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

}  // namespace quillon::num
