// Operand builders and comparisons shared by the GEMM tests.
#pragma once
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include "common/test_util.h"
#include "quillon/quillon.h"
#include "reference/gemm_ref.h"
#include "reference/gguf_ref.h"

namespace gt {

// bf16 integers in [lo, hi]: products and sums of them are exact in fp32.
inline std::vector<uint16_t> int_bf16(qt::Rng& rng, size_t n, int lo, int hi) {
  std::vector<uint16_t> v(n);
  for (auto& x : v) x = (uint16_t)(ref::to_bits((float)rng.integer(lo, hi)) >> 16);
  return v;
}
inline std::vector<float> floats_of(const std::vector<uint16_t>& v) {
  std::vector<float> f(v.size());
  for (size_t i = 0; i < v.size(); ++i) f[i] = ref::bf16_value(v[i]);
  return f;
}
// One-hot rows: row m holds 1.0 at column col(m), so C[m, n] = B[n, col(m)].
template <class F>
inline std::vector<uint16_t> one_hot(int64_t M, int64_t K, F&& col) {
  std::vector<uint16_t> v((size_t)(M * K), 0);
  for (int64_t m = 0; m < M; ++m) v[(size_t)(m * K + col(m))] = 0x3f80;
  return v;
}

// Exact expected outputs of an exactly representable product.
inline std::vector<float> expect_f32(const std::vector<double>& C) {
  std::vector<float> v(C.size());
  for (size_t i = 0; i < C.size(); ++i) v[i] = (float)C[i];
  return v;
}
inline std::vector<uint16_t> expect_bf16(const std::vector<double>& C) {
  std::vector<uint16_t> v(C.size());
  for (size_t i = 0; i < C.size(); ++i) v[i] = ref::bf16_out((float)C[i]);
  return v;
}
inline std::vector<float> widen(const std::vector<uint16_t>& v) { return floats_of(v); }
// Either output type as floats (bf16 widened, which keeps every bit).
inline std::vector<float> expect(const std::vector<double>& C, bool bf16) {
  return bf16 ? widen(expect_bf16(C)) : expect_f32(C);
}
inline std::vector<float> result(const qt::DevBuf& c, bool bf16) {
  return bf16 ? widen(c.download<uint16_t>()) : c.download<float>();
}

// |got - want| within a summation bound: 8 * sqrt(K) fp32 roundings of the
// magnitude sum, plus the output's own rounding for bf16.
inline int64_t count_outside(const std::vector<float>& got, const std::vector<double>& want,
                             const std::vector<double>& mag, int64_t K, bool bf16_out) {
  int64_t bad = 0;
  for (size_t i = 0; i < want.size(); ++i) {
    double tol = 8.0 * std::sqrt((double)K) * std::ldexp(mag[i], -24) + 1e-30;
    if (bf16_out) tol += std::fabs(want[i]) * std::ldexp(1.0, -8);
    if (!(std::fabs((double)got[i] - want[i]) <= tol)) ++bad;
  }
  return bad;
}

// A GGUF tensor of N rows and K columns of format `id`, random valid blocks.
inline std::vector<uint8_t> gguf_tensor(int id, int64_t N, int64_t K, uint64_t seed) {
  const ref::KFormat f = ref::kformat(id);
  std::mt19937_64 g(seed);
  return ref::random_blocks(g, f.block_bytes, N * K / f.block_weights, ref::kquant_f16_offsets(id));
}

// Its planes, shuffled by the exported entry.
struct Planes {
  qt::DevBuf quant, meta;
};
inline Planes shuffle_kquant(int id, const std::vector<uint8_t>& src, int64_t N, int64_t K) {
  Planes p{qt::DevBuf((size_t)quillon_kquant_quant_bytes(id, N, K)),
           qt::DevBuf((size_t)quillon_kquant_meta_bytes(id, N, K))};
  qt::DevBuf s = qt::DevBuf::from(src);
  EXPECT_EQ(quillon_gemm_kquant_shuffle_b(id, s.get(), p.quant.get(), p.meta.get(), N, K, nullptr), hipSuccess);
  EXPECT_EQ(hipStreamSynchronize(nullptr), hipSuccess);
  return p;
}

// A k-quant weight: dequantised values and the shuffled planes.
struct KWeight {
  std::vector<float> W;
  Planes pl;
};
inline KWeight kquant_weight(int id, int64_t N, int64_t K, uint64_t seed) {
  const auto src = gguf_tensor(id, N, K, seed);
  return {floats_of(ref::kquant_dequant(id, src, N, K)), shuffle_kquant(id, src, N, K)};
}

// bf16 [N, K] shuffled to blk32 by the exported entry.
inline qt::DevBuf shuffle_bf16(const std::vector<uint16_t>& B, int64_t N, int64_t K) {
  qt::DevBuf s = qt::DevBuf::from(B), d((size_t)(N * K * 2));
  EXPECT_EQ(quillon_gemm_bf16_shuffle_b(s.get(), d.get(), N, K, nullptr), hipSuccess);
  EXPECT_EQ(hipStreamSynchronize(nullptr), hipSuccess);
  return d;
}

}  // namespace gt
