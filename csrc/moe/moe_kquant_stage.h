// The k-quant grouped products of one format, at the active geometry. Each
// format's forms compile in a unit of their own (moe_kquant_instances.cmake).
#pragma once
#include <type_traits>

#include "moe_expert_stage.h"
#include "quillon/kquant_sets.h"

namespace quillon::moe_stage {

// Formats whose shared-expert pass takes the 32-column decode tiles: with one
// expert, a narrower tile gives more workgroups.
constexpr bool kquant_shared_bn32(int F) { return F == 5 || F == 6 || F == 8 || F == 20 || F == 23; }

// Geometry 3's down has K = 640: only the formats of 32-weight blocks serve it.
template <class G, int ROLE, int F>
inline constexpr bool kKQuantServes = !(G::id == 3 && ROLE == 1) || kq::RaggedK::contains(F);

template <class F>
void on_role(int role, F&& f) {
  if (role == 0) f(std::integral_constant<int, 0>{});
  else f(std::integral_constant<int, 1>{});
}

[[noreturn]] inline void not_ragged(int F) {
  QUILLON_FATAL("k-quant format %d is not in this build's ragged-K set (kquant_sets)", F);
}

// Routed products, or with `shared_pass` the shared expert's: the same forms
// but for BN 32 in the decode kernels of kquant_shared_bn32 formats.
template <int F>
void moe_kquant_product(int role, bool shared_pass, const MoeVariant& v, int32_t narrow_max, const void* A,
                        gemm_core::KQuantPlanes B, void* C, const GroupedGemmTiles& t, hipStream_t s) {
  using W = gemm_core::MoeWKQuant<F>;
  on_moe_geometry([&](auto g) {
    using G = decltype(g);
    on_role(role, [&](auto r) {
      constexpr int ROLE = decltype(r)::value;
      if constexpr (!kKQuantServes<G, ROLE, F>) {
        not_ragged(F);
      } else if constexpr (kquant_shared_bn32(F)) {
        if (shared_pass) grouped_product<G, ROLE, W, 32>(v, narrow_max, A, B, C, t, s);
        else grouped_product<G, ROLE, W>(v, narrow_max, A, B, C, t, s);
      } else {
        grouped_product<G, ROLE, W>(v, narrow_max, A, B, C, t, s);
      }
    });
  });
}

// Routed experts in F, the shared one in Q8_0, one narrow launch.
template <int F>
void moe_kquant_dual_product(int role, const MoeVariant& v, int32_t narrow_max, const void* A,
                             gemm_core::KQuantDualPlanes B, void* C, const GroupedGemmTiles& t, hipStream_t s) {
  using W = gemm_core::MoeWKQuantDual<F, kq::Q8_0>;
  on_moe_geometry([&](auto g) {
    using G = decltype(g);
    on_role(role, [&](auto r) {
      constexpr int ROLE = decltype(r)::value;
      if constexpr (!kKQuantServes<G, ROLE, F>) not_ragged(F);
      else grouped_product<G, ROLE, W>(v, narrow_max, A, B, C, t, s);
    });
  });
}

#define QUILLON_MOE_KQUANT_EXTERN(F)                                                                              \
  extern template void moe_kquant_product<F>(int, bool, const MoeVariant&, int32_t, const void*,                 \
                                             gemm_core::KQuantPlanes, void*, const GroupedGemmTiles&, hipStream_t); \
  extern template void moe_kquant_dual_product<F>(int, const MoeVariant&, int32_t, const void*,                  \
                                                  gemm_core::KQuantDualPlanes, void*, const GroupedGemmTiles&,      \
                                                  hipStream_t);

}  // namespace quillon::moe_stage
