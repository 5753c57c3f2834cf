// The QKV operators: the norm of the hidden row written once as the
// projection's A (row-major at Decode, blk32 at Prefill), the projection to
// query, gate, K and V in one of five weight forms, then the indexer's.
#include "attn_proj.h"

#include "../../gemm_core/gemm_proj_ops.h"
#include "../../norm/rmsnorm.h"

namespace quillon {

namespace {

using proj::KN;
using proj::ProjCall;

template <class F>
void on_attn_geometry(F&& f) {
  on_geometry<Qwen36MoeA3B, Qwen3627B, Qwen38FlashNext>(QUILLON_HERE, f);
}

int64_t max2(int64_t a, int64_t b) { return a > b ? a : b; }

// A for the projections, and the scratch past the activation region for
// their partials. At Prefill the A is written shuffled, so the projections
// see PrefillShuffledA. A pre-shuffled x is taken as A only without a norm:
// the norm reads rows.
template <class G>
ProjCall prepare(const char* name, const QkvCall& q) {
  ProjCall c{q.x, q.out, q.M, q.mode, nullptr, static_cast<float*>(q.scratch), q.stream};
  if (q.mode != proj::Prefill && q.norm_w == nullptr) return c;
  if (q.mode == proj::PrefillShuffledA) QUILLON_FATAL("%s takes no pre-shuffled A; pass Prefill or Decode", name);
  if (q.scratch == nullptr) QUILLON_FATAL("qkv_proj needs qkv_proj_scratch_bytes(M)");
  constexpr int64_t K = G::hidden_size;
  c.A = q.scratch;
  c.splitk_ws = reinterpret_cast<float*>(static_cast<unsigned char*>(q.scratch) + proj::proj_scratch_bytes(q.M, K));
  if (q.mode == proj::Decode) {
    rmsnorm(q.x, q.residual, q.norm_w, q.scratch, q.M, q.eps, q.stream);
    return c;
  }
  c.mode = proj::PrefillShuffledA;
  if (q.norm_w == nullptr) shuffle_a_blk32(q.x, K, q.scratch, (q.M + 255) / 256 * 256, K, q.stream, q.M);
  else rmsnorm_shuffled(q.x, q.residual, q.norm_w, q.scratch, q.M, q.eps, q.stream);
  return c;
}

// Prepare, run the main projection(s), then the indexer's on the same A.
template <class Main>
void run_qkv(const char* name, const QkvCall& q, Main&& main) {
  on_attn_geometry([&](auto g) {
    using G = decltype(g);
    if (q.M <= 0) return;
    const ProjCall c = prepare<G>(name, q);
    main(c);
    if (q.index_w == nullptr) return;
    if constexpr (G::id != Qwen38FlashNext::id) QUILLON_FATAL("qkv_proj: this geometry has no indexer projection to run");
    ProjCall ci = c;
    ci.C = q.index_out;
    proj::qkv_proj_index(ci, proj::bf16_w(q.index_w));
  });
}

}  // namespace

void qkv_proj(const QkvCall& q, const void* w) {
  run_qkv("qkv_proj", q, [&](const ProjCall& c) { proj::qkv_proj(c, proj::bf16_w(w)); });
}
void qkv_proj_fp8(const QkvCall& q, const void* w, const void* w_scale) {
  run_qkv("qkv_proj_fp8", q, [&](const ProjCall& c) { proj::qkv_proj_fp8(c, proj::fp8_w(w, w_scale)); });
}
void qkv_proj_kquant(const QkvCall& q, int32_t format, const void* quant, const void* meta) {
  run_qkv("qkv_proj_kquant", q, [&](const ProjCall& c) { proj::qkv_proj_kquant(c, proj::kquant_w(format, quant, meta)); });
}
void qkv_proj_pair_kquant(const QkvCall& q, int32_t format_qk, const void* qk_quant, const void* qk_meta,
                          int32_t format_v, const void* v_quant, const void* v_meta) {
  run_qkv("qkv_proj_pair_kquant", q, [&](const ProjCall& c) {
    proj::qkv_proj_pair_kquant(c, proj::kquant_w(format_qk, qk_quant, qk_meta), proj::kquant_w(format_v, v_quant, v_meta));
  });
}
void qkv_proj_q_kv_kquant(const QkvCall& q, int32_t format_q, const void* q_quant, const void* q_meta,
                          const void* kv_w) {
  run_qkv("qkv_proj_q_kv_kquant", q, [&](const ProjCall& c) {
    proj::qkv_proj_q_kv_kquant(c, proj::kquant_w(format_q, q_quant, q_meta), proj::bf16_w(kv_w));
  });
}

// The activation region, then the partials: those of the fused pairs' split
// arm (at most 32 rows at the widest arm, K and V, and the most splits K
// allows), of the indexer projection, and past 32 rows those of the second
// projection in turn (and of q at the widths where it splits), which the
// pairs' term alone does not hold.
int64_t qkv_proj_scratch_bytes(int64_t M) {
  int64_t r = 0;
  on_attn_geometry([&](auto g) {
    if (M <= 0) return;
    constexpr int32_t id = decltype(g)::id;
    constexpr KN kv = proj::qkv_proj_kv_shape(id), v = proj::qkv_proj_v_kquant_shape(id),
                 q = proj::qkv_proj_q_kquant_shape(id), ix = proj::qkv_proj_index_shape(id);
    const int64_t c = M < 32 ? M : 32;
    int64_t p = c * kv.N * proj::max_splits(kv.K) * 4;
    if constexpr (ix.N > 0) p = max2(p, proj::split_scratch_bytes(M, ix.N, ix.K));
    if (M > 32) {
      p = max2(p, proj::split_scratch_bytes(M, kv.N, kv.K));
      p = max2(p, proj::split_scratch_bytes(M, v.N, v.K));
      p = max2(p, proj::split_scratch_bytes(M, q.N, q.K));
    }
    r = proj::proj_scratch_bytes(M, kv.K) + p;
  });
  return r;
}

namespace {
KN part_shape(QkvPart part, int32_t g) {
  switch (part) {
    case QkvPart::Qk: return proj::qkv_proj_qk_kquant_shape(g);
    case QkvPart::V: return proj::qkv_proj_v_kquant_shape(g);
    case QkvPart::Q: return proj::qkv_proj_q_kquant_shape(g);
    case QkvPart::Kv: return proj::qkv_proj_kv_shape(g);
    case QkvPart::Index: return proj::qkv_proj_index_shape(g);
    default: return proj::qkv_proj_shape(g);
  }
}
}  // namespace

void qkv_proj_shuffle_w(QkvPart part, const void* src, void* dst, hipStream_t s) {
  on_attn_geometry([&](auto g) {
    constexpr int32_t id = decltype(g)::id;
    if (part == QkvPart::Index && id != Qwen38FlashNext::id)
      QUILLON_FATAL("qkv_proj_index_shuffle_w: this geometry has no indexer");
    proj::shuffle_weight(0, 0, part_shape(part, id), src, dst, nullptr, s);
  });
}
void qkv_proj_shuffle_w_fp8(const void* src, void* dst, hipStream_t s) {
  on_attn_geometry([&](auto g) { proj::shuffle_weight(1, 0, proj::qkv_proj_shape(decltype(g)::id), src, dst, nullptr, s); });
}
void qkv_proj_shuffle_w_kquant(QkvPart part, int32_t format, const void* src, void* quant, void* meta,
                               hipStream_t s) {
  on_attn_geometry([&](auto g) { proj::shuffle_weight(2, format, part_shape(part, decltype(g)::id), src, quant, meta, s); });
}

}  // namespace quillon
