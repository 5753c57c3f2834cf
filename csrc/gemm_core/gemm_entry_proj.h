// The projection entries: a runtime format id and the active geometry turned
// into the ProjShape compiled for them, and the scratch each name needs. The
// named entries themselves are generated (quillon_gen/proj_named.h).
#pragma once
#include <stdint.h>

#include <type_traits>

#include "../device/geometry.h"
#include "gemm_proj_core.h"
#include "quillon/kquant_sets.h"

namespace quillon::proj {

// A named projection's shape at one geometry.
template <class G, int64_t K, int64_t N>
struct At {};

// The format switches: dense projections, and the draft projections.
template <class F>
inline decltype(auto) on_dense_projection(int32_t format, F&& f) {
  return kq::on_kquant<kq::DenseProjection>(QUILLON_HERE, format, f);
}
template <class F>
inline decltype(auto) on_draft_projection(int32_t format, F&& f) {
  return kq::on_kquant<kq::DraftProjection>(QUILLON_HERE, format, f);
}

struct FormBf16 {
  using Weight = const uint16_t*;  // blk32
  template <int64_t K, int64_t N>
  static void run(const ProjCall& c, Weight w, const char* name) {
    ProjShape<gemm_core::WDenseBf16, 0, K, N>::run(c, w, name);
  }
};
struct FormFp8 {
  using Weight = gemm_core::Fp8Operand;
  template <int64_t K, int64_t N>
  static void run(const ProjCall& c, const Weight& w, const char* name) {
    ProjShape<gemm_core::WDenseFp8, N, K, N>::run(c, w, name);
  }
};
struct FormKQuant {
  struct Weight {
    int32_t format;
    gemm_core::KQuantPlanes planes;
  };
  template <int64_t K, int64_t N>
  static void run(const ProjCall& c, const Weight& w, const char* name) {
    on_dense_projection(w.format, [&](auto f) {
      ProjShape<gemm_core::WDenseKQuant<decltype(f)::value>, 0, K, N>::run(c, w.planes, name);
    });
  }
};

// Nothing happens at M = 0: not even the format or geometry checks.
template <class Form, class... G, int64_t... K, int64_t... N>
void run_named(const char* name, const ProjCall& c, const typename Form::Weight& w, At<G, K, N>...) {
  if (c.M <= 0) return;
  on_geometry<G...>(QUILLON_HERE, [&](auto g) {
    (void)((std::is_same_v<decltype(g), G> && (Form::template run<K, N>(c, w, name), true)) || ...);
  });
}

template <class... G, int64_t... K, int64_t... N>
int64_t scratch_named(int64_t M, At<G, K, N>...) {
  int64_t r = 0;
  on_geometry<G...>(QUILLON_HERE, [&](auto g) {
    (void)((std::is_same_v<decltype(g), G> && (r = proj_path_scratch_bytes(M, N, K), true)) || ...);
  });
  return r;
}

// A named projection's K and N at one geometry (0, 0 where it has none).
struct KN {
  int64_t K, N;
};

// Several projections over the same A. At Decode with M at most 32 one fused
// launch runs them all; otherwise they run in turn by name, each output at the
// end of the one before. Outputs and the partials of split arms as for one
// projection: C and splitk_ws of the call.
//   q and k (k-quant) with v at another k-quant width
void qkv_proj_pair_kquant(const ProjCall& c, const FormKQuant::Weight& qk, const FormKQuant::Weight& v);
//   q (k-quant) with k and v in bf16
void qkv_proj_q_kv_kquant(const ProjCall& c, const FormKQuant::Weight& q, const uint16_t* kv);
//   gate and up at equal N, different widths
void mlp_gate_up_pair_kquant(const ProjCall& c, const FormKQuant::Weight& gate, const FormKQuant::Weight& up);
//   the linear-attention input: qkv and z (k-quant), ba (bf16)
void linear_in_proj_triple_kquant(const ProjCall& c, const FormKQuant::Weight& qkv, const FormKQuant::Weight& z,
                                  const uint16_t* ba);

// Eight independent products of [M, 4096] by [1024, 4096] at one k-quant
// format in one launch: group g reads A + g * M * 4096 and writes columns
// g * 1024 of C, whose rows are 8192 wide.
inline constexpr int64_t kGroupedK = 4096, kGroupedN = 1024;
void grouped_kquant(int32_t format, const void* A, const gemm_core::KQuantPlanes (&planes)[8], void* C, int64_t M,
                    hipStream_t stream);

// The fused launches of geometry G with arm 0 at format F0: defined in
// gemm_proj_fused.h and compiled in generated units. A kind with a second
// k-quant arm compiles the arm-1 formats of Arms; where that is long the build
// splits (G, F0) over two units (fused_split in quillon_gen/proj_named.h).
template <class G, int F0, class Arms = kq::DenseProjection>
struct FusedQkvPair {
  static void run(const ProjCall& c, const gemm_core::KQuantPlanes& b0, int32_t f1, const gemm_core::KQuantPlanes& b1);
};
template <class G, int F0>
struct FusedQKv {
  static void run(const ProjCall& c, const gemm_core::KQuantPlanes& b0, const uint16_t* kv);
};
template <class G, int F0, class Arms = kq::DenseProjection>
struct FusedMlpPair {
  static void run(const ProjCall& c, const gemm_core::KQuantPlanes& b0, int32_t f1, const gemm_core::KQuantPlanes& b1);
};
template <class G, int F0, class Arms = kq::DenseProjection>
struct FusedTriple {
  static void run(const ProjCall& c, const gemm_core::KQuantPlanes& b0, int32_t f1, const gemm_core::KQuantPlanes& b1,
                  const uint16_t* ba);
};
template <int F>
struct FusedGrouped {
  static void run(const void* A, const gemm_core::KQuantPlanes (&planes)[8], void* C, int64_t M, hipStream_t s);
};
template <class... G>
struct Geometries {};

// The linear-attention projections' scratch: the largest term over the three
// weight forms of the in-projection (shuffled A, its split arms, the triple's
// partials), and of the out-projection.
int64_t linear_in_scratch_bytes(int64_t M);
int64_t linear_out_scratch_bytes(int64_t M);

}  // namespace quillon::proj

#include "quillon_gen/proj_named.h"
