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

// The linear-attention projections' scratch: the largest term over the three
// weight forms of the in-projection (shuffled A, its split arms, the triple's
// partials), and of the out-projection.
int64_t linear_in_scratch_bytes(int64_t M);
int64_t linear_out_scratch_bytes(int64_t M);

}  // namespace quillon::proj

#include "quillon_gen/proj_named.h"
