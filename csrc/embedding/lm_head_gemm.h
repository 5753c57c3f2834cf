// Host entries of the LM head, free of device code so the exported wrappers
// can include them. Asynchronous on `s`; none checks the launch status.
#pragma once
#include <hip/hip_runtime_api.h>
#include <stdint.h>

namespace quillon {

// Row-major bf16 [vocab, hidden] into blk32 column-block-major.
void lm_head_shuffle_weight(const void* src, void* w, hipStream_t s);
// Decode up to 32 rows, prefill above (scratch from lm_head_scratch_bytes).
void lm_head(const void* x, const void* w, float* logits, int64_t M, void* scratch, hipStream_t s);
void lm_head_gemm_decode(const void* x, const void* w, float* logits, int64_t M, hipStream_t s);
void lm_head_gemm_prefill(const void* x, const void* w, void* scratch, float* logits, int64_t M, hipStream_t s);
int64_t lm_head_scratch_bytes(int64_t M);
int64_t lm_head_prefill_scratch_bytes(int64_t M);

void lm_head_kquant_shuffle_weight(int32_t format, const void* gguf_src, void* quant, void* meta, hipStream_t s);
int64_t lm_head_kquant_quant_bytes(int32_t format);
int64_t lm_head_kquant_meta_bytes(int32_t format);
int64_t lm_head_kquant_gguf_bytes(int32_t format);
void lm_head_kquant(int32_t format, const void* x, const void* quant, const void* meta, float* logits, int64_t M,
                    void* scratch, hipStream_t s);

}  // namespace quillon
