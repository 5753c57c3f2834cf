// Bit views of floats shared by the references.
#pragma once
#include <cstdint>
#include <cstring>

namespace ref {
inline float from_bits(uint32_t u) {
  float f;
  std::memcpy(&f, &u, 4);
  return f;
}
inline uint32_t to_bits(float f) {
  uint32_t u;
  std::memcpy(&u, &f, 4);
  return u;
}
// bf16 widens by taking the high half of a float.
inline float widen(uint16_t h) { return from_bits((uint32_t)h << 16); }
// To bf16 by nearest even on the bits; a NaN goes wherever the addition takes it.
inline uint16_t round_bf16(float f) {
  const uint32_t u = to_bits(f);
  return (uint16_t)((u + 0x7fffu + ((u >> 16) & 1u)) >> 16);
}
}  // namespace ref
