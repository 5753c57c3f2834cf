// Compile-time geometries and the process-wide selection.
#pragma once
#include <stdint.h>

#include "quillon/quillon_types.h"

namespace quillon {

// One type per geometry: every dimension of its record as a constant, so a
// kernel instantiated for it folds its shapes at compile time.
#define QUILLON_GEOMETRY_FIELDS(X)                                                              \
  X(hidden_size) X(num_q_heads) X(num_kv_heads) X(head_dim) X(kv_block_size) X(vocab_size)      \
  X(qkv_rows) X(q_head_stride) X(kv_head_stride) X(k_offset) X(v_offset) X(linear_k_heads)      \
  X(linear_v_heads) X(linear_k_dim) X(linear_v_dim) X(linear_key_width) X(linear_value_width)   \
  X(conv_width) X(conv_kernel) X(conv_state_len) X(in_proj_rows) X(in_proj_stride) X(in_proj_pad) \
  X(in_proj_qkv_offset) X(in_proj_z_offset) X(in_proj_b_offset) X(in_proj_a_offset)             \
  X(moe_num_experts) X(moe_shared_expert_id) X(moe_total_experts) X(moe_top_k) X(moe_top_k_total) \
  X(moe_intermediate) X(reserved_a) X(reserved_b) X(mlp_intermediate) X(mlp_gate_up_rows)

struct Qwen36MoeA3B {
  static constexpr int id = 0;
  static constexpr int64_t hidden_size = 2048, num_q_heads = 16, num_kv_heads = 2, head_dim = 256, kv_block_size = 16,
                           vocab_size = 248320, qkv_rows = 9216, q_head_stride = 512, kv_head_stride = 256,
                           k_offset = 8192, v_offset = 8704, linear_k_heads = 16, linear_v_heads = 32,
                           linear_k_dim = 128, linear_v_dim = 128, linear_key_width = 2048,
                           linear_value_width = 4096, conv_width = 8192, conv_kernel = 4, conv_state_len = 3,
                           in_proj_rows = 12352, in_proj_stride = 12416, in_proj_pad = 128, in_proj_qkv_offset = 0,
                           in_proj_z_offset = 8192, in_proj_b_offset = 12288, in_proj_a_offset = 12320,
                           moe_num_experts = 256, moe_shared_expert_id = 256, moe_total_experts = 257, moe_top_k = 8,
                           moe_top_k_total = 9, moe_intermediate = 512, reserved_a = 1024, reserved_b = 32,
                           mlp_intermediate = 0, mlp_gate_up_rows = 0;
};
struct Qwen3627B {
  static constexpr int id = 1;
  static constexpr int64_t hidden_size = 5120, num_q_heads = 24, num_kv_heads = 4, head_dim = 256, kv_block_size = 16,
                           vocab_size = 248320, qkv_rows = 14336, q_head_stride = 512, kv_head_stride = 256,
                           k_offset = 12288, v_offset = 13312, linear_k_heads = 16, linear_v_heads = 48,
                           linear_k_dim = 128, linear_v_dim = 128, linear_key_width = 2048,
                           linear_value_width = 6144, conv_width = 10240, conv_kernel = 4, conv_state_len = 3,
                           in_proj_rows = 16480, in_proj_stride = 16512, in_proj_pad = 128, in_proj_qkv_offset = 0,
                           in_proj_z_offset = 10240, in_proj_b_offset = 16384, in_proj_a_offset = 16432,
                           moe_num_experts = 0, moe_shared_expert_id = 0, moe_total_experts = 0, moe_top_k = 0,
                           moe_top_k_total = 0, moe_intermediate = 0, reserved_a = 1024, reserved_b = 32,
                           mlp_intermediate = 17408, mlp_gate_up_rows = 34816;
};
struct DeepSeekV4Flash {
  static constexpr int id = 2;
  static constexpr int64_t hidden_size = 4096, num_q_heads = 64, num_kv_heads = 1, head_dim = 512, kv_block_size = 16,
                           vocab_size = 129280, qkv_rows = 0, q_head_stride = 0, kv_head_stride = 0, k_offset = 0,
                           v_offset = 0, linear_k_heads = 0, linear_v_heads = 0, linear_k_dim = 0, linear_v_dim = 0,
                           linear_key_width = 0, linear_value_width = 0, conv_width = 0, conv_kernel = 0,
                           conv_state_len = 0, in_proj_rows = 0, in_proj_stride = 0, in_proj_pad = 0,
                           in_proj_qkv_offset = 0, in_proj_z_offset = 0, in_proj_b_offset = 0, in_proj_a_offset = 0,
                           moe_num_experts = 256, moe_shared_expert_id = 256, moe_total_experts = 257, moe_top_k = 6,
                           moe_top_k_total = 7, moe_intermediate = 2048, reserved_a = 1024, reserved_b = 32,
                           mlp_intermediate = 0, mlp_gate_up_rows = 0;
};
struct Qwen38FlashNext {
  static constexpr int id = 3;
  static constexpr int64_t hidden_size = 2560, num_q_heads = 24, num_kv_heads = 2, head_dim = 256, kv_block_size = 16,
                           vocab_size = 248320, qkv_rows = 13312, q_head_stride = 512, kv_head_stride = 256,
                           k_offset = 12288, v_offset = 12800, linear_k_heads = 16, linear_v_heads = 48,
                           linear_k_dim = 128, linear_v_dim = 128, linear_key_width = 2048,
                           linear_value_width = 6144, conv_width = 10240, conv_kernel = 4, conv_state_len = 3,
                           in_proj_rows = 16480, in_proj_stride = 16512, in_proj_pad = 128, in_proj_qkv_offset = 0,
                           in_proj_z_offset = 10240, in_proj_b_offset = 16384, in_proj_a_offset = 16432,
                           moe_num_experts = 512, moe_shared_expert_id = 512, moe_total_experts = 513, moe_top_k = 10,
                           moe_top_k_total = 11, moe_intermediate = 640, reserved_a = 1024, reserved_b = 32,
                           mlp_intermediate = 0, mlp_gate_up_rows = 0;
};

template <class G>
constexpr QuillonModelConfig config_of() {
  QuillonModelConfig c{};
#define QUILLON_X(f) c.f = G::f;
  QUILLON_GEOMETRY_FIELDS(QUILLON_X)
#undef QUILLON_X
  return c;
}

struct DraftShape0 {
  static constexpr int id = 0;
  static constexpr int64_t hidden_size = 2048, num_layers = 6, num_q_heads = 32, num_kv_heads = 8, head_dim = 128,
                           intermediate = 6144, num_target_taps = 8;
};
struct DraftShape1 {
  static constexpr int id = 1;
  static constexpr int64_t hidden_size = 5120, num_layers = 5, num_q_heads = 32, num_kv_heads = 8, head_dim = 128,
                           intermediate = 17408, num_target_taps = 5;
};

int32_t active_geometry();
int32_t active_draft();
int32_t select_geometry(int32_t id);
int32_t select_draft(const QuillonDraftShape* shape);
const char* geometry_name(int32_t id);  // "" for an unknown id
const char* draft_name(int32_t id);
bool draft_shape(int32_t id, QuillonDraftShape* out);

// The fatal failures of the geometry and draft switches, naming the value read.
[[noreturn]] void geometry_failure_at(const char* file, int line, int32_t g);
[[noreturn]] void draft_failure_at(const char* file, int line, int32_t d);
#define QUILLON_GEOMETRY_FAILURE(g) ::quillon::geometry_failure_at(__FILE__, __LINE__, (g))
#define QUILLON_DRAFT_FAILURE(d) ::quillon::draft_failure_at(__FILE__, __LINE__, (d))

// The geometries this library is built for (CMake's QUILLON_GEOMETRIES, as a
// bit mask by id). Another one cannot be selected, and no entry instantiates
// anything for it.
#ifndef QUILLON_GEOMETRY_MASK
#define QUILLON_GEOMETRY_MASK 0xF
#endif
constexpr bool geometry_built(int32_t id) { return (uint32_t)id < 4u && ((QUILLON_GEOMETRY_MASK >> id) & 1) != 0; }

// on_geometry<Gs...>(QUILLON_HERE, f) calls f(G{}) with the active geometry's type when it is one of Gs; otherwise
// the geometry failure. Host entries read the selection once, here.
template <class... Gs, class F>
inline void on_geometry(const char* file, int line, F&& f) {
  const int32_t g = active_geometry();
  bool done = false;
  (
      [&] {
        if constexpr (geometry_built(Gs::id)) {
          if (!done && g == Gs::id) {
            f(Gs{});
            done = true;
          }
        }
      }(),
      ...);
  if (!done) geometry_failure_at(file, line, g);
}
#define QUILLON_HERE __FILE__, __LINE__

}  // namespace quillon
