// Plain CPU reference of the causal convolution: a per-sequence window of the
// last three raw inputs, the four taps as fused steps from zero, SiLU by true
// division with the device's exp2.
#pragma once
#include <cmath>
#include <cstdint>
#include <vector>

#include "hw_math.h"
#include "ref_bits.h"

namespace ref {

// One sequence of `dim` channels: hist holds 3 bf16 rows, oldest first, the
// format of a state slot.
struct ConvSeq {
  int64_t dim;
  std::vector<uint16_t> hist;
  explicit ConvSeq(int64_t d) : dim(d), hist((size_t)(3 * d), 0) {}
  ConvSeq(int64_t d, const uint16_t* slot) : dim(d), hist(slot, slot + 3 * d) {}

  // Convolves one input row; writes the output row and shifts the window.
  void step(const uint16_t* x, const uint16_t* w, uint16_t* out) {
    const float log2e = from_bits(0x3FB8AA3Bu);
    for (int64_t c = 0; c < dim; ++c) {
      float y = 0.0f;
      for (int j = 0; j < 3; ++j) y = std::fma(widen(w[c * 4 + j]), widen(hist[(size_t)(j * dim + c)]), y);
      y = std::fma(widen(w[c * 4 + 3]), widen(x[c]), y);
      out[c] = round_bf16(y / (1.0f + hw_exp2(-y * log2e)));
    }
    for (int64_t c = 0; c < dim; ++c) {
      hist[(size_t)c] = hist[(size_t)(dim + c)];
      hist[(size_t)(dim + c)] = hist[(size_t)(2 * dim + c)];
      hist[(size_t)(2 * dim + c)] = x[c];
    }
  }
};

}  // namespace ref
