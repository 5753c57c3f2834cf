// Host entries of the general GEMM, free of device code so the exported
// wrappers can include them. The Configs and kernels are in gemm_general.h.
#pragma once
#include <hip/hip_runtime_api.h>
#include <stdint.h>

namespace quillon::num {
struct bf16;
}

namespace quillon {

// ---- Split rule ------------------------------------------------------------------------
// The largest s in 2 .. min(max(K / 32, 2), 16) that divides K / 32 and keeps
// tiles * s within the CU count; 1 without partials, for K below 64, or when
// no s qualifies.
int gemm_split_count(int64_t M, int64_t N, int64_t K, bool have_partials);
// Partial bytes the split rule wants at this shape: M * N * S * 4 when S >= 2.
int64_t gemm_splitk_bytes(int64_t M, int64_t N, int64_t K);
// Bytes of the shuffled A of an M x K product: ceil(M / 256) * 256 rows.
int64_t gemm_shuffled_a_bytes(int64_t M, int64_t K);

// ---- Internal entries (A already shuffled) -------------------------------------------
void gemm_bf16_shuffled(const void* A, const void* B, float* C, int64_t M, int64_t N, int64_t K, hipStream_t s,
                        void* partials);
void gemm_bf16_shuffled(const void* A, const void* B, num::bf16* C, int64_t M, int64_t N, int64_t K,
                        hipStream_t s, void* partials);
void gemm_kquant_shuffled(int32_t format, const void* A, const void* quant, const void* meta, float* C, int64_t M,
                          int64_t N, int64_t K, hipStream_t s, void* partials);
void gemm_kquant_shuffled(int32_t format, const void* A, const void* quant, const void* meta, num::bf16* C,
                          int64_t M, int64_t N, int64_t K, hipStream_t s, void* partials);
// The product as bf16 columns [col, col + N) of a row-block-major blk32 buffer
// W columns wide; all ceil(M / 256) * 256 rows are written.
void gemm_kquant_to_blk32(int32_t format, const void* A, const void* quant, const void* meta, void* C, int64_t M,
                          int64_t N, int64_t K, int64_t W, int64_t col, hipStream_t s);

// Two k-quant products over one shuffled A in one launch: arm 0 ("f32")
// writes fp32, arm 1 ("bf16") writes bf16.
struct GemmSeg2Arm {
  int32_t format;
  const void* quant;
  const void* meta;
  void* C;
  int64_t N;
};
struct GemmSeg2Arms {
  GemmSeg2Arm arm[2];
};
void gemm_seg2(const void* A, const GemmSeg2Arms& arms, int64_t M, int64_t K, hipStream_t s);

// ---- Exported entries (A row-major, stride K) ----------------------------------------
void gemm_bf16_shuffle_b(const void* src, void* dst, int64_t N, int64_t K, hipStream_t s);
int64_t gemm_bf16_a_ws_bytes(int64_t M, int64_t K);
void gemm_bf16_a(const void* A, const void* B, void* C, int64_t M, int64_t N, int64_t K, bool bf16_out, void* ws,
                 hipStream_t s);
void gemm_bf16_a2(const void* A, const void* B1, const void* B2, void* C1, void* C2, int64_t M, int64_t N1,
                  int64_t N2, int64_t K, bool bf16_out, void* ws, hipStream_t s);
int64_t gemm_kquant_a_ws_bytes(int64_t M, int64_t K);
void gemm_kquant_a(int32_t format, const void* A, const void* quant, const void* meta, void* C, int64_t M, int64_t N,
                   int64_t K, bool bf16_out, void* ws, hipStream_t s);

}  // namespace quillon
