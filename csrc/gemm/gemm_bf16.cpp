// General bf16 GEMM: the split rule, the workspace layout and the bf16 entries.
#include "../device/device_config.h"
#include "../gemm_core/gemm_kernel.h"
#include "../gemm_core/gemm_shuffle.h"
#include "gemm_general.h"

namespace quillon {

using gemm_core::bf16;
using gemm_core::GemmParams;
using gemm_core::GemmSplitParams;
using gemm_core::PrefillTile;

int gemm_split_count(int64_t M, int64_t N, int64_t K, bool have_partials) {
  if (!have_partials || K < 64) return 1;
  const int64_t tiles = (N / 128) * ((M + 255) / 256);
  const int64_t kb = K / 32, cus = num_cus();
  const int64_t s_max = kb < 2 ? 2 : kb > 16 ? 16 : kb;
  int S = 1;
  for (int64_t s = 2; s <= s_max; ++s)
    if (kb % s == 0 && tiles * s <= cus) S = (int)s;
  return S;
}

int64_t gemm_splitk_bytes(int64_t M, int64_t N, int64_t K) {
  const int S = gemm_split_count(M, N, K, true);
  return S >= 2 ? M * N * S * 4 : 0;
}

int64_t gemm_shuffled_a_bytes(int64_t M, int64_t K) { return (M + 255) / 256 * K * 512; }

namespace {
template <class T>
void bf16_product(const void* A, const void* B, T* C, int64_t M, int64_t N, int64_t K, hipStream_t s, void* partials) {
  if (M <= 0 || N / 128 <= 0) return;
  // A ragged N (columns past the last whole tile stay uncomputed) never
  // splits: the partial region is sized for whole tiles only.
  const int S = N % 128 == 0 ? gemm_split_count(M, N, K, partials != nullptr) : 1;
  const GemmParams<const uint16_t*> head{static_cast<const uint16_t*>(A), static_cast<const uint16_t*>(B), C, M, N, K};
  if (S == 1) {
    launch_gemm<gemm_core::GemmBf16Config<T>>(head, s);
    return;
  }
  float* ws = static_cast<float*>(partials);
  // Partials are fp32 whatever T is: one split kernel serves both outputs.
  launch_gemm_splitk<gemm_core::GemmBf16SplitKConfig<float>>(GemmSplitParams<const uint16_t*>{head, ws}, S, s);
  splitk_reduce(ws, C, M * N, S, s);
}

// Both products of an _a entry: the shuffled A at the start of ws, the split
// partials after it.
void bf16_a_product(const void* B, void* C, int64_t M, int64_t N, int64_t K, bool bf16_out, void* ws,
                    hipStream_t s) {
  void* partials = static_cast<unsigned char*>(ws) + gemm_shuffled_a_bytes(M, K);
  if (bf16_out) bf16_product(ws, B, static_cast<bf16*>(C), M, N, K, s, partials);
  else bf16_product(ws, B, static_cast<float*>(C), M, N, K, s, partials);
}
}  // namespace

void gemm_bf16_shuffled(const void* A, const void* B, float* C, int64_t M, int64_t N, int64_t K, hipStream_t s,
                        void* partials) {
  bf16_product(A, B, C, M, N, K, s, partials);
}
void gemm_bf16_shuffled(const void* A, const void* B, bf16* C, int64_t M, int64_t N, int64_t K, hipStream_t s,
                        void* partials) {
  bf16_product(A, B, C, M, N, K, s, partials);
}

void gemm_bf16_shuffle_b(const void* src, void* dst, int64_t N, int64_t K, hipStream_t s) {
  shuffle_b_blk32(src, K, dst, N, K, s);
}

int64_t gemm_bf16_a_ws_bytes(int64_t M, int64_t K) {
  return (int64_t)num_cus() * 131072 + gemm_shuffled_a_bytes(M, K);
}

void gemm_bf16_a(const void* A, const void* B, void* C, int64_t M, int64_t N, int64_t K, bool bf16_out, void* ws,
                 hipStream_t s) {
  if (M <= 0) return;
  shuffle_a_blk32(A, K, ws, PrefillTile::padded_rows(M), K, s, M);
  bf16_a_product(B, C, M, N, K, bf16_out, ws, s);
}

void gemm_bf16_a2(const void* A, const void* B1, const void* B2, void* C1, void* C2, int64_t M, int64_t N1,
                  int64_t N2, int64_t K, bool bf16_out, void* ws, hipStream_t s) {
  if (M <= 0) return;
  shuffle_a_blk32(A, K, ws, PrefillTile::padded_rows(M), K, s, M);
  bf16_a_product(B1, C1, M, N1, K, bf16_out, ws, s);
  bf16_a_product(B2, C2, M, N2, K, bf16_out, ws, s);
}

}  // namespace quillon
