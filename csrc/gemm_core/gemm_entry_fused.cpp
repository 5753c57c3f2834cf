// Projections that share one A: the road by mode and M, the pair and triple
// checks, and the dispatch onto the geometry's fused launch or onto the named
// projections in turn.
#include "gemm_entry_proj.h"

namespace quillon::proj {

namespace {

// Fused launches serve decode steps of up to 32 rows.
bool fused_road(const ProjCall& c) { return c.mode == Decode && c.M <= 32; }

template <template <class, int> class Fused, class... G, class... Args>
void run_fused(Geometries<G...>, int32_t f0, const Args&... args) {
  on_geometry<G...>(QUILLON_HERE, [&](auto g) {
    on_dense_projection(f0, [&](auto f) { Fused<decltype(g), decltype(f)::value>::run(args...); });
  });
}

// A kind with a second k-quant arm: the unit of (G, F0) that holds arm 1 at
// f1, one of two where the build splits F0. An f1 outside the set reaches the
// second, whose switch reports it.
template <template <class, int, class> class Fused, class... G, class... Args>
void run_fused_arms(Geometries<G...>, int32_t f0, int32_t f1, const Args&... args) {
  on_geometry<G...>(QUILLON_HERE, [&](auto g) {
    on_dense_projection(f0, [&](auto f) {
      using Gt = decltype(g);
      constexpr int F0 = decltype(f)::value;
      if constexpr (!fused_split(F0)) Fused<Gt, F0, kq::DenseProjection>::run(args...);
      else if (FusedArmsLow::contains(f1)) Fused<Gt, F0, FusedArmsLow>::run(args...);
      else Fused<Gt, F0, FusedArmsHigh>::run(args...);
    });
  });
}

// The next projection in turn writes after the n columns of the one before.
ProjCall after(const ProjCall& c, int64_t n) {
  ProjCall r = c;
  r.C = static_cast<unsigned char*>(c.C) + c.M * n * 2;
  return r;
}

void require_different(int32_t f0, int32_t f1) {
  if (f0 == f1)
    QUILLON_FATAL("the segmented pair is for halves stored at DIFFERENT widths; both arrived at k-quant %d, which is "
                  "the fused weight's job",
                  f0);
}

using KQuantEntry = void (*)(const ProjCall&, const FormKQuant::Weight&);

// Two k-quant projections at different widths: one fused launch, or `first`
// then `second` after first's columns.
template <template <class, int, class> class Fused, class At>
void kquant_pair(At at, const ProjCall& c, const FormKQuant::Weight& w0, const FormKQuant::Weight& w1,
                 KQuantEntry first, KQuantEntry second, KN (*shape)(int32_t)) {
  if (c.M <= 0) return;
  if (!fused_road(c)) {
    first(c, w0);
    return second(after(c, shape(active_geometry()).N), w1);
  }
  require_different(w0.format, w1.format);
  run_fused_arms<Fused>(at, w0.format, w1.format, c, w0.planes, w1.format, w1.planes);
}

}  // namespace

void qkv_proj_pair_kquant(const ProjCall& c, const FormKQuant::Weight& qk, const FormKQuant::Weight& v) {
  kquant_pair<FusedQkvPair>(FusedQkvPairAt{}, c, qk, v, qkv_proj_qk_kquant, qkv_proj_v_kquant,
                            qkv_proj_qk_kquant_shape);
}

void qkv_proj_q_kv_kquant(const ProjCall& c, const FormKQuant::Weight& q, const uint16_t* kv) {
  if (c.M <= 0) return;
  if (!fused_road(c)) {
    qkv_proj_q_kquant(c, q);
    return qkv_proj_kv(after(c, qkv_proj_q_kquant_shape(active_geometry()).N), kv);
  }
  run_fused<FusedQKv>(FusedQKvAt{}, q.format, c, q.planes, kv);
}

void mlp_gate_up_pair_kquant(const ProjCall& c, const FormKQuant::Weight& gate, const FormKQuant::Weight& up) {
  kquant_pair<FusedMlpPair>(FusedMlpPairAt{}, c, gate, up, mlp_gate_kquant, mlp_up_kquant, mlp_gate_kquant_shape);
}

// Equal formats are no fault here: the three run in turn.
void linear_in_proj_triple_kquant(const ProjCall& c, const FormKQuant::Weight& qkv, const FormKQuant::Weight& z,
                                  const uint16_t* ba) {
  if (c.M <= 0) return;
  if (!fused_road(c) || qkv.format == z.format) {
    linear_in_proj_qkv_kquant(c, qkv);
    const int32_t g = active_geometry();
    const ProjCall cz = after(c, linear_in_proj_qkv_kquant_shape(g).N);
    linear_in_proj_z_kquant(cz, z);
    return linear_in_proj_ba(after(cz, linear_in_proj_z_kquant_shape(g).N), ba);
  }
  run_fused_arms<FusedTriple>(FusedTripleAt{}, qkv.format, z.format, c, qkv.planes, z.format, z.planes, ba);
}

void grouped_kquant(int32_t format, const void* A, const gemm_core::KQuantPlanes (&planes)[8], void* C, int64_t M,
                    hipStream_t stream) {
  if (M <= 0) return;
  on_dense_projection(format, [&](auto f) { FusedGrouped<decltype(f)::value>::run(A, planes, C, M, stream); });
}

}  // namespace quillon::proj
