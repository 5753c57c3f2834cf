/* quillon: the records that cross the ABI and the export macro. The library's
 * own units include this rather than quillon.h, so that declaring an operator
 * rebuilds only the wrappers and the tests. */
#ifndef QUILLON_QUILLON_TYPES_H
#define QUILLON_QUILLON_TYPES_H

#if !defined(__HIP_PLATFORM_AMD__) && !defined(__HIP_PLATFORM_NVIDIA__)
#define __HIP_PLATFORM_AMD__ 1
#endif
#include <hip/hip_runtime_api.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define QUILLON_API __attribute__((visibility("default")))

/* Dimensions of the selected geometry; 37 signed 64-bit fields. A field the
 * geometry does not have is 0. */
typedef struct QuillonModelConfig {
  int64_t hidden_size;
  int64_t num_q_heads;
  int64_t num_kv_heads;
  int64_t head_dim;
  int64_t kv_block_size;
  int64_t vocab_size;
  int64_t qkv_rows;
  int64_t q_head_stride;
  int64_t kv_head_stride;
  int64_t k_offset;
  int64_t v_offset;
  int64_t linear_k_heads;
  int64_t linear_v_heads;
  int64_t linear_k_dim;
  int64_t linear_v_dim;
  int64_t linear_key_width;
  int64_t linear_value_width;
  int64_t conv_width;
  int64_t conv_kernel;
  int64_t conv_state_len;
  int64_t in_proj_rows;
  int64_t in_proj_stride;
  int64_t in_proj_pad;
  int64_t in_proj_qkv_offset;
  int64_t in_proj_z_offset;
  int64_t in_proj_b_offset;
  int64_t in_proj_a_offset;
  int64_t moe_num_experts;
  int64_t moe_shared_expert_id;
  int64_t moe_total_experts;
  int64_t moe_top_k;
  int64_t moe_top_k_total;
  int64_t moe_intermediate;
  int64_t reserved_a;
  int64_t reserved_b;
  int64_t mlp_intermediate;
  int64_t mlp_gate_up_rows;
} QuillonModelConfig;

/* Shape a speculative draft checkpoint declares; 7 signed 64-bit fields. */
typedef struct QuillonDraftShape {
  int64_t hidden_size;
  int64_t num_layers;
  int64_t num_q_heads;
  int64_t num_kv_heads;
  int64_t head_dim;
  int64_t intermediate;
  int64_t num_target_taps;
} QuillonDraftShape;

#ifdef __cplusplus
static_assert(sizeof(QuillonModelConfig) == 296, "QuillonModelConfig is a 296-byte wire format");
static_assert(__builtin_offsetof(QuillonModelConfig, vocab_size) == 40, "layout");
static_assert(__builtin_offsetof(QuillonModelConfig, in_proj_a_offset) == 208, "layout");
static_assert(__builtin_offsetof(QuillonModelConfig, moe_num_experts) == 216, "layout");
static_assert(__builtin_offsetof(QuillonModelConfig, reserved_a) == 264, "layout");
static_assert(__builtin_offsetof(QuillonModelConfig, mlp_gate_up_rows) == 288, "layout");
static_assert(sizeof(QuillonDraftShape) == 56, "QuillonDraftShape is a 56-byte wire format");
static_assert(__builtin_offsetof(QuillonDraftShape, num_target_taps) == 48, "layout");
#else
_Static_assert(sizeof(QuillonModelConfig) == 296, "QuillonModelConfig is a 296-byte wire format");
_Static_assert(sizeof(QuillonDraftShape) == 56, "QuillonDraftShape is a 56-byte wire format");
#endif

#ifdef __cplusplus
}
#endif

#endif /* QUILLON_QUILLON_TYPES_H */
