// Reference matrix products: C = A * B^T over plain row-major operands, in
// double, plus the output rounding, the fp8 weight value, the prefill
// workgroup order and the general entries' split rule, each written from the
// computation it states.
#pragma once
#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

#include "ref_bits.h"

namespace ref {

inline float bf16_value(uint16_t h) { return widen(h); }

// C[m, n] = sum over k of A[m, k] * B[n, k]; A is M x K, B is N x K. With
// `magnitude` the sum of |A[m, k] * B[n, k]|: the scale of a summation error.
inline std::vector<double> gemm(const std::vector<float>& A, const std::vector<float>& B, int64_t M, int64_t N,
                                int64_t K, bool magnitude = false) {
  std::vector<double> C((size_t)(M * N));
  for (int64_t m = 0; m < M; ++m)
    for (int64_t n = 0; n < N; ++n) {
      double s = 0.0;
      for (int64_t k = 0; k < K; ++k) {
        const double p = (double)A[(size_t)(m * K + k)] * (double)B[(size_t)(n * K + k)];
        s += magnitude ? std::fabs(p) : p;
      }
      C[(size_t)(m * N + n)] = s;
    }
  return C;
}
inline std::vector<double> gemm_abs(const std::vector<float>& A, const std::vector<float>& B, int64_t M, int64_t N,
                                    int64_t K) {
  return gemm(A, B, M, N, K, true);
}

// Output rounding to bf16: a NaN keeps the top half of bits | 0x400000; any
// other value rounds to nearest even.
inline uint16_t bf16_out(float f) {
  return std::isnan(f) ? (uint16_t)((to_bits(f) | 0x400000u) >> 16) : round_bf16(f);
}

// An e4m3 weight byte: sign, 4 exponent bits e, 3 mantissa bits f, worth
// 2^(e - 7) * (1 + f / 8) for every non-zero magnitude (exponent field 0 is
// not subnormal here); magnitude 0 is a zero of its sign.
inline float fp8_weight(uint8_t x) {
  const int m = x & 0x7f;
  const float sign = (x & 0x80) ? -1.0f : 1.0f;
  if (m == 0) return sign * 0.0f;
  return sign * std::ldexp(1.0f + (float)(m & 7) / 8.0f, (m >> 3) - 7);
}

// The (row tile, column tile) of linear workgroup b in the prefill order:
// groups of up to four row tiles walk one column tile at a time.
inline void prefill_tile(int64_t b, int64_t Nt, int64_t Mt, int64_t& m, int64_t& n) {
  const int64_t g = b / (4 * Nt);
  const int64_t h = Mt - 4 * g < 4 ? Mt - 4 * g : 4;
  n = (b - 4 * g * Nt) / h;
  m = 4 * g + b % h;
}

// The general entries' split count.
inline int split_count(int64_t M, int64_t N, int64_t K, bool partials, int cus) {
  if (!partials || K < 64) return 1;
  const int64_t tiles = (N / 128) * ((M + 255) / 256), kb = K / 32;
  int64_t s_max = kb > 2 ? kb : 2;
  if (s_max > 16) s_max = 16;
  int S = 1;
  for (int64_t s = 2; s <= s_max; ++s)
    if (kb % s == 0 && tiles * s <= cus) S = (int)s;
  return S;
}

}  // namespace ref
