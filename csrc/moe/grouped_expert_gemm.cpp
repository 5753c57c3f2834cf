// The fused MoE entries over single-slab weights (bf16, fp8): workspace
// carving, router, sort, the two grouped products, scatter-reduce; and the
// choice of the grouped kernel at a variant and M.
#include "grouped_expert_gemm.h"

#include "moe_expert_stage.h"

namespace quillon {

using gemm_core::MoeWBf16;
using gemm_core::MoeWFp8;
using namespace moe_stage;

namespace {

// Router, sort, the single-slab expert stage (pass 0, expert base 0), reduce.
template <class W>
void fused_single_slab(const void* hidden, const void* router_w, typename W::Operand gate_up,
                       typename W::Operand down, void* out, void* workspace, int64_t M, int32_t narrow_max,
                       hipStream_t s) {
  on_moe_geometry([&](auto g) {
    using G = decltype(g);
    const MoeVariant v = moe_variant_at(M);
    check_variant(v);
    if (M <= 0) return;
    const MoeWorkspace w = carve<G>(M, workspace);
    const GroupedGemmTiles t = route_and_sort<G>(hidden, router_w, w, M, s);
    if (v.shuffled) shuffle_gathered_a(hidden, w.gathered, t, G::hidden_size, v.T, s);
    const int32_t nm = std::is_same_v<W, MoeWBf16> ? 4 : narrow_max;
    grouped_product<G, 0, W>(v, nm, v.shuffled ? w.gathered : hidden, gate_up, w.intermediate, t, s);
    grouped_product<G, 1, W>(v, nm, w.intermediate, down, w.expert_rows, t, s);
    moe_scatter_reduce(w.expert_rows, w.sorted_weights, w.inverse, out, M, s);
  });
}

}  // namespace

int64_t moe_workspace_bytes(int64_t M) {
  int64_t r = 0;
  on_moe_geometry([&](auto g) {
    using G = decltype(g);
    r = carve<G>(M, nullptr).total;
    for (int64_t t : {int64_t(768), int64_t(2048)}) {
      if (t >= M) continue;
      const int64_t at = carve<G>(t, nullptr).total;
      r = at > r ? at : r;
    }
  });
  return r;
}

void fused_moe(const void* hidden, const void* router_w, const void* gate_up, const void* down, void* out,
               void* workspace, int64_t M, hipStream_t s) {
  fused_single_slab<MoeWBf16>(hidden, router_w, static_cast<const uint16_t*>(gate_up),
                              static_cast<const uint16_t*>(down), out, workspace, M, 4, s);
}

void fused_moe_fp8(const void* hidden, const void* router_w, const void* gate_up, const void* down,
                   const void* gate_up_scales, const void* down_scales, void* out, void* workspace, int64_t M,
                   hipStream_t s) {
  const gemm_core::Fp8Operand gu{static_cast<const uint8_t*>(gate_up), static_cast<const uint16_t*>(gate_up_scales)};
  const gemm_core::Fp8Operand dn{static_cast<const uint8_t*>(down), static_cast<const uint16_t*>(down_scales)};
  fused_single_slab<MoeWFp8>(hidden, router_w, gu, dn, out, workspace, M, moe_narrow_max_m(MoeNarrow::Fp8), s);
}

}  // namespace quillon
