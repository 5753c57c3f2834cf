// The low-bit grouped products of one expert quant format (IQ2_XXS, IQ3_XXS,
// MXFP4, IQ2_S) at the active geometry, and the merged launch of routed
// i-quant tiles with a Q5_K / Q6_K shared expert. Each format compiles in a
// unit of its own (moe_lowbit_instances.cmake).
#pragma once
#include <type_traits>

#include "../gemm_core/gemm_w_iquant.h"
#include "moe_kquant_stage.h"

namespace quillon::moe_stage {

using gemm_core::LowBitOperand;

template <int Q>
using MoeWLowBitOf = std::conditional_t<Q == iquant::MXFP4, gemm_core::MoeWMxfp4, gemm_core::MoeWIQuant<Q>>;

// Geometry 3's down has K = 640: whole 32-weight blocks, but not whole i-quant
// super-blocks, so only MXFP4 serves it.
template <class G, int ROLE, int Q>
inline constexpr bool kLowBitServes = !(G::id == 3 && ROLE == 1) || Q == iquant::MXFP4;

// Routed low-bit products of one role, pass and expert base as in `t`.
template <int Q>
void moe_lowbit_product(int role, const MoeVariant& v, int32_t narrow_max, const void* A, LowBitOperand B, void* C,
                        const GroupedGemmTiles& t, hipStream_t s) {
  on_moe_geometry([&](auto g) {
    using G = decltype(g);
    on_role(role, [&](auto r) {
      constexpr int ROLE = decltype(r)::value;
      if constexpr (kLowBitServes<G, ROLE, Q>)
        grouped_product<G, ROLE, MoeWLowBitOf<Q>>(v, narrow_max, A, B, C, t, s);
      else
        iquant::check_lowbit_k(QUILLON_HERE, Q, G::moe_intermediate);
    });
  });
}

// The merged tile width: 256 columns for IQ2_XXS and IQ3_XXS, 128 for IQ2_S.
template <int Q>
inline constexpr int kMergedBN = Q == iquant::IQ2_S ? 128 : 256;

// One launch per role at T = 128: tiles below tile_counts[1] run the routed
// i-quant experts, the rest the shared expert in k-quant format FS (5 or 6).
// `t` is the pass-0 record; the two halves take passes 1 and 2.
template <int Q>
void moe_lowbit_merged_product(int role, int32_t shared_fmt, const void* A, LowBitOperand B,
                               gemm_core::KQuantPlanes SB, void* C, const GroupedGemmTiles& t, hipStream_t s) {
  static_assert(Q != iquant::MXFP4, "MXFP4 experts have no merged form");
  using namespace gemm_core;
  on_moe_geometry([&](auto g) {
    using G = decltype(g);
    constexpr int64_t H = G::hidden_size, I = G::moe_intermediate;
    on_role(role, [&](auto r) {
      constexpr int ROLE = decltype(r)::value;
      constexpr int64_t N = ROLE == 0 ? 2 * I : H;
      constexpr int L = ROLE == 0 && G::id == 2 ? 10000 : 0;
      using Path = MoePrefillLds<128, kMergedBN<Q>>;
      if constexpr (!kLowBitServes<G, ROLE, Q>) {
        iquant::check_lowbit_k(QUILLON_HERE, Q, I);
      } else {
        dispatch_value<ValueList<5, 6>>(QUILLON_HERE, shared_fmt, [&](auto fs) {
          using RCfg = MoeExpertConfig<ROLE, Path, MoeWIQuant<Q>, H, I, L>;
          using SCfg = MoeExpertConfig<ROLE, Path, MoeWKQuant<decltype(fs)::value>, H, I, L>;
          GroupedGemmTiles routed = t, shared = t;
          routed.pass = 1;
          routed.expert_base = 0;
          shared.pass = 2;
          shared.expert_base = (int32_t)G::moe_num_experts;
          const MoeMergedParams<RCfg, SCfg> p{{static_cast<const uint16_t*>(A), B, C, ROLE == 0 ? I : H, routed},
                                              {static_cast<const uint16_t*>(A), SB, C, ROLE == 0 ? I : H, shared}};
          if (t.max_tiles == 0) return;
          launch(&moe_expert_merged_kernel<RCfg, SCfg>, dim3((unsigned)(N / Path::BN), (unsigned)t.max_tiles),
                 dim3(512), 0, s, p);
        });
      }
    });
  });
}

#define QUILLON_MOE_LOWBIT_EXTERN(Q)                                                                             \
  extern template void moe_lowbit_product<Q>(int, const MoeVariant&, int32_t, const void*, LowBitOperand, void*, \
                                             const GroupedGemmTiles&, hipStream_t);
#define QUILLON_MOE_LOWBIT_MERGED_EXTERN(Q)                                                                  \
  extern template void moe_lowbit_merged_product<Q>(int, int32_t, const void*, LowBitOperand,               \
                                                    gemm_core::KQuantPlanes, void*, const GroupedGemmTiles&, \
                                                    hipStream_t);

}  // namespace quillon::moe_stage
