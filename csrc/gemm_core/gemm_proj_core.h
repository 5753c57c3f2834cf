// Projections: fixed (weight form, K, N), only M varies. Which kernel runs at
// which mode and M, how many K splits, and the scratch each path needs. One
// ProjShape<W, N_FIXED, K, N> holds the host operations of one shape; its
// kernels are instantiated once each, in generated units (gemm_proj_instances).
#pragma once
#include <hip/hip_runtime_api.h>
#include <stdint.h>

#include "../device/device_config.h"
#include "../platform/fatal.h"
#include "gemm_config.h"
#include "gemm_kernel.h"
#include "gemm_shuffle.h"

namespace quillon::proj {

enum Mode : int32_t { Prefill = 0, PrefillShuffledA = 1, Decode = 2 };

// Shapes of N at or above this never split: their column tiles already fill
// any device.
inline constexpr int64_t kNoSplitFromN = 8704;

// Largest split whose share of K stays a whole number of deep-loop trips.
constexpr int max_splits(int64_t K) {
  int s = 8;
  while (s > 1 && K % (int64_t(s) * 128) != 0) s /= 2;
  return s;
}

// Splits of a decode at p2: enough to bring column tiles times S up to p2,
// at most 8, capped by K.
constexpr int split_count(int64_t N, int64_t K, int64_t p2) {
  if (N >= kNoSplitFromN) return 1;
  const int64_t T = N / 128;
  int s = p2 < 2 * T ? 1 : p2 < 4 * T ? 2 : p2 < 8 * T ? 4 : 8;
  const int cap = max_splits(K);
  return s < cap ? s : cap;
}

// Activations shuffled to blk32 with rows padded to 256.
constexpr int64_t proj_scratch_bytes(int64_t M, int64_t K) { return (M + 255) / 256 * 256 * K * 2; }

// fp32 partials of a split decode at this process's CU count; 0 without a split.
inline int64_t split_scratch_bytes(int64_t M, int64_t N, int64_t K) {
  const int S = split_count(N, K, num_cus_p2());
  return S > 1 ? S * M * N * 4 : 0;
}

// The scratch of a projection at M: the largest of its paths.
inline int64_t proj_path_scratch_bytes(int64_t M, int64_t N, int64_t K) {
  if (M <= 0) return 0;
  const int64_t a = proj_scratch_bytes(M, K), w = split_scratch_bytes(M, N, K);
  return a > w ? a : w;
}

// What one call of a projection carries besides its weight.
struct ProjCall {
  const void* A;      // row-major [M, K] (Prefill, Decode) or blk32 padded (PrefillShuffledA)
  void* C;            // bf16 [M, N]
  int64_t M;
  int32_t mode;
  void* a_scratch;    // Prefill: proj_scratch_bytes(M)
  float* splitk_ws;   // Decode of a splitting shape: split_scratch_bytes
  hipStream_t stream;
};

// The decode loop: k-quant always deep; bf16 deep up to N = 512; fp8 plain.
template <class W, int64_t N>
constexpr bool deep_decode() {
  constexpr int kind = gemm_core::weight_kind<W>();
  return kind == 2 || (kind == 0 && N <= 512);
}

template <class W, int64_t N_FIXED, int64_t K, int64_t N>
struct ProjShape {
  using Operand = typename W::Operand;
  static constexpr int kMaxSplits = N >= kNoSplitFromN ? 1 : max_splits(K);
  using Prefill = gemm_core::ProjConfigFor<W, N_FIXED, K, gemm_core::ProjPrefillLds, false>;
  template <int MT>
  using DecodeCfg = gemm_core::ProjConfigFor<W, N_FIXED, K, gemm_core::ProjDecodeStream<MT>, deep_decode<W, N>()>;
  template <int S, int MT>
  using SplitCfg = gemm_core::ProjSplitKConfigFor<W, N_FIXED, K, S, MT>;
  static_assert(N % 128 == 0 && K % 128 == 0, "projections run whole column tiles and deep-loop trips");
  static_assert(N_FIXED == 0 || N_FIXED == N, "a compile-time N is the shape's N");

  // No split: prefill (mode 0 or 1) or the decode form.
  static void gemm(const ProjCall& c, Operand B, const char* name);
  // The split-capable decode.
  static void gemm_decode(const void* A, Operand B, void* C, int64_t M, hipStream_t s, float* splitk_ws);
  // Decode through the split when the shape has one, else the plain decode.
  static void run(const ProjCall& c, Operand B, const char* name);

 private:
  template <int S>
  static void split(const void* A, Operand B, void* C, int64_t M, hipStream_t s, float* ws);
};

template <class W, int64_t N_FIXED, int64_t K, int64_t N>
void ProjShape<W, N_FIXED, K, N>::gemm(const ProjCall& c, Operand B, const char* name) {
  if (c.M <= 0) return;
  if (c.mode == Decode) {
    auto* A = static_cast<const uint16_t*>(c.A);
    if (c.M > 16) launch_gemm<DecodeCfg<32>>({{A, B, c.C, c.M, N, K}, 0, 0}, c.stream);
    else launch_gemm<DecodeCfg<16>>({{A, B, c.C, c.M, N, K}, 0, 0}, c.stream);
    return;
  }
  const void* A = c.A;
  if (c.mode != PrefillShuffledA) {
    if (c.a_scratch == nullptr) QUILLON_FATAL("%s prefill needs a_scratch of proj_scratch_bytes(M) (got null)", name);
    shuffle_a_blk32(c.A, K, c.a_scratch, (c.M + 255) / 256 * 256, K, c.stream, c.M);
    A = c.a_scratch;
  }
  launch_gemm<Prefill>({{static_cast<const uint16_t*>(A), B, c.C, c.M, N, K}, 0, 0}, c.stream);
}

template <class W, int64_t N_FIXED, int64_t K, int64_t N>
template <int S>
void ProjShape<W, N_FIXED, K, N>::split(const void* A, Operand B, void* C, int64_t M, hipStream_t s, float* ws) {
  auto* a = static_cast<const uint16_t*>(A);
  if (M > 16) launch_proj_decode_splitk<SplitCfg<S, 32>>({a, B, ws, C, M, N, K, 0}, s);
  else launch_proj_decode_splitk<SplitCfg<S, 16>>({a, B, ws, C, M, N, K, 0}, s);
  splitk_reduce(ws, static_cast<gemm_core::bf16*>(C), M * N, S, s);
}

template <class W, int64_t N_FIXED, int64_t K, int64_t N>
void ProjShape<W, N_FIXED, K, N>::gemm_decode(const void* A, Operand B, void* C, int64_t M, hipStream_t s,
                                               float* splitk_ws) {
  if (M <= 0) return;
  const int S = split_count(N, K, num_cus_p2());
  if (S > 1 && splitk_ws == nullptr)
    QUILLON_FATAL("%s decode needs splitk_ws at N=%lld (got null)", "proj_gemm_decode", (long long)N);
  if constexpr (kMaxSplits >= 8) {
    if (S == 8) return split<8>(A, B, C, M, s, splitk_ws);
  }
  if constexpr (kMaxSplits >= 4) {
    if (S == 4) return split<4>(A, B, C, M, s, splitk_ws);
  }
  if constexpr (kMaxSplits >= 2) {
    if (S == 2) return split<2>(A, B, C, M, s, splitk_ws);
  }
  gemm({A, C, M, Decode, nullptr, nullptr, s}, B, "proj_gemm_decode");
}

template <class W, int64_t N_FIXED, int64_t K, int64_t N>
void ProjShape<W, N_FIXED, K, N>::run(const ProjCall& c, Operand B, const char* name) {
  if constexpr (kMaxSplits > 1) {
    if (c.mode == Decode) return gemm_decode(c.A, B, c.C, c.M, c.stream, c.splitk_ws);
  }
  gemm(c, B, name);
}

}  // namespace quillon::proj
