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

// Each format's products live in its generated unit.
#define QUILLON_MOE_KQUANT_EXTERN(F)                                                                              \
  extern template void moe_kquant_product<F>(int, bool, const MoeVariant&, int32_t, const void*,                 \
                                             gemm_core::KQuantPlanes, void*, const GroupedGemmTiles&, hipStream_t); \
  extern template void moe_kquant_dual_product<F>(int, const MoeVariant&, int32_t, const void*,                  \
                                                  gemm_core::KQuantDualPlanes, void*, const GroupedGemmTiles&,      \
                                                  hipStream_t);
QUILLON_MOE_KQUANT_EXTERN(2)
QUILLON_MOE_KQUANT_EXTERN(3)
QUILLON_MOE_KQUANT_EXTERN(4)
QUILLON_MOE_KQUANT_EXTERN(5)
QUILLON_MOE_KQUANT_EXTERN(6)
QUILLON_MOE_KQUANT_EXTERN(8)
QUILLON_MOE_KQUANT_EXTERN(20)
QUILLON_MOE_KQUANT_EXTERN(23)
#undef QUILLON_MOE_KQUANT_EXTERN

inline gemm_core::KQuantPlanes kquant_planes(const void* quant, const void* meta) {
  return {static_cast<const uint32_t*>(quant), static_cast<const uint8_t*>(meta)};
}

// A k-quant id's set for a role: geometry 3's down (K = 640) takes only the
// 32-weight-block formats. Aborts outside it, else calls f(Value<id>).
template <class G, class F>
void on_kquant_role(int role, int32_t id, F&& f) {
  if (G::id == 3 && role == 1) kq::on_kquant<kq::RaggedK>(QUILLON_HERE, id, f);
  else kq::on_kquant<kq::GeneralGemm>(QUILLON_HERE, id, f);
}
template <class G>
void check_kquant_role(int role, int32_t id) {
  on_kquant_role<G>(role, id, [](auto) {});
}

// The shared expert of a split entry: k-quant planes when both metadata
// pointers are given (then its format ids are read), else bf16 slabs.
struct MoeSharedExpert {
  int32_t fmt_gate_up, fmt_down;
  const void* gate_up;
  const void* gate_up_meta;
  const void* down;
  const void* down_meta;
  bool kquant() const { return gate_up_meta != nullptr; }
};

inline void check_shared_pair(const MoeSharedExpert& sh) {
  if ((sh.gate_up_meta == nullptr) != (sh.down_meta == nullptr))
    QUILLON_FATAL("the shared expert needs metadata for both slabs or for neither");
}
template <class G>
void check_shared_formats(const MoeSharedExpert& sh) {
  if (!sh.kquant()) return;
  check_kquant_role<G>(0, sh.fmt_gate_up);
  check_kquant_role<G>(1, sh.fmt_down);
}

// Pass 2 of a split entry, expert base E: the shared gate-up and down, no
// gather (shuffled rows come from the router). k-quant takes its narrow
// maximum, bf16 its constant 4.
template <class G>
void shared_expert_pass(const MoeSharedExpert& sh, const MoeVariant& v, const void* a0, void* intermediate,
                        void* expert_rows, GroupedGemmTiles t, hipStream_t s) {
  t.pass = 2;
  t.expert_base = (int32_t)G::moe_num_experts;
  if (sh.kquant()) {
    const int32_t nm = moe_narrow_max_m(MoeNarrow::KQuant);
    on_kquant_role<G>(0, sh.fmt_gate_up, [&](auto f) {
      moe_kquant_product<f>(0, true, v, nm, a0, kquant_planes(sh.gate_up, sh.gate_up_meta), intermediate, t, s);
    });
    on_kquant_role<G>(1, sh.fmt_down, [&](auto f) {
      moe_kquant_product<f>(1, true, v, nm, intermediate, kquant_planes(sh.down, sh.down_meta), expert_rows, t, s);
    });
  } else {
    using gemm_core::MoeWBf16;
    grouped_product<G, 0, MoeWBf16>(v, 4, a0, static_cast<const uint16_t*>(sh.gate_up), intermediate, t, s);
    grouped_product<G, 1, MoeWBf16>(v, 4, intermediate, static_cast<const uint16_t*>(sh.down), expert_rows, t, s);
  }
}

}  // namespace quillon::moe_stage
