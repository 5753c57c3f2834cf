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
}  // namespace ref
