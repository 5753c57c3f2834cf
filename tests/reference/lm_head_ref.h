// Reference facts of the LM head, from the computation it states: which
// workgroups of each launch touch a column tile, and the scratch sizes.
#pragma once
#include <cstdint>
#include <utility>
#include <vector>

#include "gemm_ref.h"

namespace ref {

// Scratch of the prefill path: ceil(M / 256) * 256 rows of hidden bf16.
inline int64_t lm_head_prefill_scratch(int64_t M, int64_t hidden) { return (M + 255) / 256 * 256 * hidden * 2; }
// The entry's scratch: none up to 32 rows.
inline int64_t lm_head_scratch(int64_t M, int64_t hidden) { return M < 33 ? 0 : lm_head_prefill_scratch(M, hidden); }

// Logits of one 128-column tile, C[m, n] = sum over k of A[m, k] * B[n, k] in
// double, with the sum of magnitudes beside it (the scale of a summation
// error). Zero activations contribute nothing and are skipped, which keeps
// one-hot rows cheap.
struct TileLogits {
  std::vector<double> sum, mag;
};
inline TileLogits head_tile(const std::vector<float>& A, const std::vector<float>& B, int64_t M, int64_t N,
                            int64_t K) {
  TileLogits t{std::vector<double>((size_t)(M * N)), std::vector<double>((size_t)(M * N))};
  std::vector<std::pair<int64_t, double>> nz;
  for (int64_t m = 0; m < M; ++m) {
    nz.clear();
    for (int64_t k = 0; k < K; ++k)
      if (A[(size_t)(m * K + k)] != 0.0f) nz.emplace_back(k, (double)A[(size_t)(m * K + k)]);
    for (int64_t n = 0; n < N; ++n) {
      const float* b = B.data() + n * K;
      double s = 0.0, g = 0.0;
      for (const auto& [k, a] : nz) {
        const double p = a * (double)b[k];
        s += p;
        g += p < 0 ? -p : p;
      }
      t.sum[(size_t)(m * N + n)] = s;
      t.mag[(size_t)(m * N + n)] = g;
    }
  }
  return t;
}

// Decode grid (column tiles, row tiles): linear id x + y * Nt.
inline std::vector<int64_t> decode_blocks(const std::vector<int64_t>& tiles, int64_t Nt, int64_t M, int MT) {
  std::vector<int64_t> ids;
  for (int64_t y = 0; y < (M + MT - 1) / MT; ++y)
    for (int64_t nt : tiles) ids.push_back(nt + y * Nt);
  return ids;
}
// Prefill grid: every linear block whose tile lies in one of the column tiles.
inline std::vector<int64_t> prefill_blocks(const std::vector<int64_t>& tiles, int64_t Nt, int64_t M) {
  const int64_t Mt = (M + 255) / 256;
  std::vector<int64_t> ids;
  for (int64_t b = 0; b < Nt * Mt; ++b) {
    int64_t m, n;
    prefill_tile(b, Nt, Mt, m, n);
    for (int64_t nt : tiles)
      if (n == nt) ids.push_back(b);
  }
  return ids;
}
// The blk32 weight shuffle writes destination blocks 2b and 2b + 1 in
// workgroup b; rows n of tile nt sit in block rows 4nt .. 4nt + 3 of every
// 32-column block column kb, at block kb * (N / 32) + n / 32.
inline std::vector<int64_t> weight_shuffle_blocks(const std::vector<int64_t>& tiles, int64_t N, int64_t K) {
  std::vector<int64_t> ids;
  for (int64_t kb = 0; kb < K / 32; ++kb)
    for (int64_t nt : tiles) {
      const int64_t first = kb * (N / 32) + 4 * nt;
      ids.push_back(first / 2);
      ids.push_back(first / 2 + 1);
    }
  return ids;
}
// The k-quant shuffle runs one thread per (row, super-block), row-major.
inline std::vector<int64_t> kquant_shuffle_blocks(const std::vector<int64_t>& tiles, int64_t K) {
  const int64_t SB = (K + 255) / 256;
  std::vector<int64_t> ids;
  for (int64_t nt : tiles)
    for (int64_t t = nt * 128 * SB; t < (nt + 1) * 128 * SB; t += 256) ids.push_back(t / 256);
  return ids;
}

}  // namespace ref
