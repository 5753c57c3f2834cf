// Host entries of the weight formats: plane sizes, the dense k-quant shuffle
// and the fp8 block-scale transpose.
#pragma once
#include <hip/hip_runtime_api.h>
#include <stdint.h>

namespace quillon {
// Bytes of the GGUF source, the quant plane and the meta plane of an N x K
// tensor; each checks the format id first.
int64_t kquant_gguf_bytes(int32_t format, int64_t N, int64_t K);
int64_t kquant_quant_bytes(int32_t format, int64_t N, int64_t K);
int64_t kquant_meta_bytes(int32_t format, int64_t N, int64_t K);
// One dense GGUF tensor of N rows and K columns into its quant and meta planes
// (general-GEMM set): the id, then the shape, then the launch and the clear of
// the plane's 4 trailing bytes.
void gemm_kquant_shuffle_b(int32_t format, const void* src, void* quant, void* meta, int64_t N, int64_t K,
                           hipStream_t s);
// The [N / 128][K / 128] bf16 block-scale table of an fp8 weight, transposed
// to [K / 128][N / 128].
void proj_scale_shuffle_fp8(const void* src, void* dst, int64_t N, int64_t K, hipStream_t s);
}  // namespace quillon
