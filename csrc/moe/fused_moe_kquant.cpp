// The fused MoE entry over per-expert k-quant planes: routed experts in one
// format per role, the shared expert in k-quant (when its metadata is given)
// or bf16. A Q8_0 shared expert rides with the routed tiles in one narrow
// launch; otherwise routed and shared run as two passes over the tiles.
#include "grouped_expert_gemm.h"
#include "moe_kquant_stage.h"

namespace quillon {

using namespace moe_stage;

void fused_moe_kquant_split(int32_t fmt_gate_up, int32_t fmt_down, int32_t fmt_shared_gate_up,
                            int32_t fmt_shared_down, const void* hidden, const void* router_w, const void* gate_up,
                            const void* gate_up_meta, const void* down, const void* down_meta,
                            const void* shared_gate_up, const void* shared_gate_up_meta, const void* shared_down,
                            const void* shared_down_meta, void* out, void* workspace, int64_t M, hipStream_t s) {
  const MoeSharedExpert sh{fmt_shared_gate_up, fmt_shared_down, shared_gate_up, shared_gate_up_meta,
                           shared_down,        shared_down_meta};
  on_moe_geometry([&](auto g) {
    using G = decltype(g);
    constexpr int64_t E = G::moe_num_experts;
    const MoeVariant v = moe_variant_at(M);
    check_variant(v);
    // Every argument is checked before the first launch.
    check_shared_pair(sh);
    check_kquant_role<G>(0, fmt_gate_up);
    check_kquant_role<G>(1, fmt_down);
    check_shared_formats<G>(sh);
    if (M <= 0) return;
    const MoeWorkspace w = carve<G>(M, workspace);
    GroupedGemmTiles t = route_and_sort<G>(hidden, router_w, w, M, s);
    const int32_t nm = moe_narrow_max_m(MoeNarrow::KQuant);
    const void* a0 = v.shuffled ? w.gathered : hidden;
    if (sh.kquant() && fmt_shared_gate_up == kq::Q8_0 && fmt_shared_down == kq::Q8_0 && !v.shuffled && M <= nm) {
      const gemm_core::KQuantDualPlanes gu{kquant_planes(gate_up, gate_up_meta),
                                           kquant_planes(shared_gate_up, shared_gate_up_meta), E};
      const gemm_core::KQuantDualPlanes dn{kquant_planes(down, down_meta),
                                           kquant_planes(shared_down, shared_down_meta), E};
      on_kquant_role<G>(0, fmt_gate_up, [&](auto f) {
        moe_kquant_dual_product<f>(0, v, nm, hidden, gu, w.intermediate, t, s);
      });
      on_kquant_role<G>(1, fmt_down, [&](auto f) {
        moe_kquant_dual_product<f>(1, v, nm, w.intermediate, dn, w.expert_rows, t, s);
      });
    } else {
      t.pass = 1;
      if (v.shuffled) shuffle_gathered_a(hidden, w.gathered, t, G::hidden_size, v.T, s);
      on_kquant_role<G>(0, fmt_gate_up, [&](auto f) {
        moe_kquant_product<f>(0, false, v, nm, a0, kquant_planes(gate_up, gate_up_meta), w.intermediate, t, s);
      });
      on_kquant_role<G>(1, fmt_down, [&](auto f) {
        moe_kquant_product<f>(1, false, v, nm, w.intermediate, kquant_planes(down, down_meta), w.expert_rows, t, s);
      });
      shared_expert_pass<G>(sh, v, a0, w.intermediate, w.expert_rows, t, s);
    }
    moe_scatter_reduce(w.expert_rows, w.sorted_weights, w.inverse, out, M, s);
  });
}

}  // namespace quillon
