// The fused MoE entry over per-expert k-quant planes: routed experts in one
// format per role, the shared expert in k-quant (when its metadata is given)
// or bf16. A Q8_0 shared expert rides with the routed tiles in one narrow
// launch; otherwise routed and shared run as two passes over the tiles.
#include "grouped_expert_gemm.h"
#include "moe_kquant_stage.h"

namespace quillon {

using namespace moe_stage;
using gemm_core::KQuantPlanes;

namespace moe_stage {
#define QUILLON_MOE_KQUANT_X(F) QUILLON_MOE_KQUANT_EXTERN(F)
QUILLON_MOE_KQUANT_X(2)
QUILLON_MOE_KQUANT_X(3)
QUILLON_MOE_KQUANT_X(4)
QUILLON_MOE_KQUANT_X(5)
QUILLON_MOE_KQUANT_X(6)
QUILLON_MOE_KQUANT_X(8)
QUILLON_MOE_KQUANT_X(20)
QUILLON_MOE_KQUANT_X(23)
#undef QUILLON_MOE_KQUANT_X
}  // namespace moe_stage

namespace {
KQuantPlanes planes(const void* quant, const void* meta) {
  return {static_cast<const uint32_t*>(quant), static_cast<const uint8_t*>(meta)};
}
}  // namespace

void fused_moe_kquant_split(int32_t fmt_gate_up, int32_t fmt_down, int32_t fmt_shared_gate_up,
                            int32_t fmt_shared_down, const void* hidden, const void* router_w, const void* gate_up,
                            const void* gate_up_meta, const void* down, const void* down_meta,
                            const void* shared_gate_up, const void* shared_gate_up_meta, const void* shared_down,
                            const void* shared_down_meta, void* out, void* workspace, int64_t M, hipStream_t s) {
  on_moe_geometry([&](auto g) {
    using G = decltype(g);
    constexpr int64_t E = G::moe_num_experts;
    const MoeVariant v = moe_variant_at(M);
    check_variant(v);
    // Every argument is checked before the first launch.
    if ((shared_gate_up_meta == nullptr) != (shared_down_meta == nullptr))
      QUILLON_FATAL("the shared expert needs metadata for both slabs or for neither");
    const bool shared_kquant = shared_gate_up_meta != nullptr;
    // Down at geometry 3 (K = 640) takes only the 32-weight-block formats.
    auto on_format = [&](int role, int32_t id, auto&& f) {
      if (G::id == 3 && role == 1) kq::on_kquant<kq::RaggedK>(QUILLON_HERE, id, f);
      else kq::on_kquant<kq::GeneralGemm>(QUILLON_HERE, id, f);
    };
    auto served = [](auto) {};
    on_format(0, fmt_gate_up, served);
    on_format(1, fmt_down, served);
    if (shared_kquant) {
      on_format(0, fmt_shared_gate_up, served);
      on_format(1, fmt_shared_down, served);
    }
    if (M <= 0) return;
    const MoeWorkspace w = carve<G>(M, workspace);
    GroupedGemmTiles t = route_and_sort<G>(hidden, router_w, w, M, s);
    const int32_t nm = moe_narrow_max_m(MoeNarrow::KQuant);
    const void* a0 = v.shuffled ? w.gathered : hidden;
    if (shared_kquant && fmt_shared_gate_up == kq::Q8_0 && fmt_shared_down == kq::Q8_0 && !v.shuffled && M <= nm) {
      const gemm_core::KQuantDualPlanes gu{planes(gate_up, gate_up_meta),
                                           planes(shared_gate_up, shared_gate_up_meta), E};
      const gemm_core::KQuantDualPlanes dn{planes(down, down_meta), planes(shared_down, shared_down_meta), E};
      on_format(0, fmt_gate_up, [&](auto f) {
        moe_kquant_dual_product<f>(0, v, nm, hidden, gu, w.intermediate, t, s);
      });
      on_format(1, fmt_down, [&](auto f) {
        moe_kquant_dual_product<f>(1, v, nm, w.intermediate, dn, w.expert_rows, t, s);
      });
    } else {
      t.pass = 1;
      if (v.shuffled) shuffle_gathered_a(hidden, w.gathered, t, G::hidden_size, v.T, s);
      on_format(0, fmt_gate_up, [&](auto f) {
        moe_kquant_product<f>(0, false, v, nm, a0, planes(gate_up, gate_up_meta), w.intermediate, t, s);
      });
      on_format(1, fmt_down, [&](auto f) {
        moe_kquant_product<f>(1, false, v, nm, w.intermediate, planes(down, down_meta), w.expert_rows, t, s);
      });
      // The shared tiles: no gather, shuffled rows come from the router.
      t.pass = 2;
      t.expert_base = (int32_t)E;
      if (shared_kquant) {
        on_format(0, fmt_shared_gate_up, [&](auto f) {
          moe_kquant_product<f>(0, true, v, nm, a0, planes(shared_gate_up, shared_gate_up_meta), w.intermediate, t,
                                s);
        });
        on_format(1, fmt_shared_down, [&](auto f) {
          moe_kquant_product<f>(1, true, v, nm, w.intermediate, planes(shared_down, shared_down_meta),
                                w.expert_rows, t, s);
        });
      } else {
        using gemm_core::MoeWBf16;
        grouped_product<G, 0, MoeWBf16>(v, 4, a0, static_cast<const uint16_t*>(shared_gate_up), w.intermediate, t, s);
        grouped_product<G, 1, MoeWBf16>(v, 4, w.intermediate, static_cast<const uint16_t*>(shared_down),
                                        w.expert_rows, t, s);
      }
    }
    moe_scatter_reduce(w.expert_rows, w.sorted_weights, w.inverse, out, M, s);
  });
}

}  // namespace quillon
