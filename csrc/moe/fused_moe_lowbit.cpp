// The fused MoE entries over low-bit expert planes (IQ2_XXS, IQ3_XXS, MXFP4,
// IQ2_S): both roles low-bit, or gate-up low-bit with a k-quant down; routed
// by scores or by a token table. At T = 128 an i-quant pair with a Q5_K /
// Q6_K shared expert runs one merged launch per role; otherwise routed and
// shared tiles run as two passes.
#include "../gemm/moe_shuffle_weights_v2.h"
#include "grouped_expert_gemm.h"
#include "moe_lowbit_stage.h"

namespace quillon {

using namespace moe_stage;

namespace moe_stage {
QUILLON_MOE_LOWBIT_EXTERN(0)
QUILLON_MOE_LOWBIT_EXTERN(1)
QUILLON_MOE_LOWBIT_EXTERN(2)
QUILLON_MOE_LOWBIT_EXTERN(3)
QUILLON_MOE_LOWBIT_MERGED_EXTERN(0)
QUILLON_MOE_LOWBIT_MERGED_EXTERN(1)
QUILLON_MOE_LOWBIT_MERGED_EXTERN(3)
}  // namespace moe_stage

namespace {

constexpr bool is_iquant(int32_t q) { return q != iquant::MXFP4; }

// Buffer descriptors address a plane with 32-bit offsets: p0 is the widest,
// K / 32 entries of 4 (IQ2_XXS) or 8 bytes per stride row.
void check_plane(int32_t q, int64_t K, int64_t stride) {
  if (!is_iquant(q)) return;
  const int64_t bytes = (q == iquant::IQ2_XXS ? K / 8 : K / 4) * stride;
  iquant::check_lowbit_plane_addressable(QUILLON_HERE, bytes, K, stride);
}

LowBitOperand lowbit_operand(const void* const (&p)[3], int64_t stride) {
  return {{static_cast<const uint8_t*>(p[0]), static_cast<const uint8_t*>(p[1]), static_cast<const uint8_t*>(p[2])},
          stride};
}

}  // namespace

void fused_moe_lowbit(const MoeLowBitExperts& x, int32_t fmt_shared_gate_up, int32_t fmt_shared_down,
                      const void* hidden, const void* router_w, const int64_t* token_ids, const int32_t* tid2eid,
                      bool table, const void* shared_gate_up, const void* shared_gate_up_meta,
                      const void* shared_down, const void* shared_down_meta, void* out, void* workspace, int64_t M,
                      hipStream_t s) {
  // The ids first, the shared ones only beside their metadata.
  iquant::check_expert_format(QUILLON_HERE, x.fmt_gate_up);
  if (x.down_kquant) kq::require_format_id(QUILLON_HERE, x.fmt_down);
  else iquant::check_expert_format(QUILLON_HERE, x.fmt_down);
  if (shared_gate_up_meta != nullptr) kq::require_format_id(QUILLON_HERE, fmt_shared_gate_up);
  if (shared_down_meta != nullptr) kq::require_format_id(QUILLON_HERE, fmt_shared_down);
  const MoeSharedExpert sh{fmt_shared_gate_up, fmt_shared_down, shared_gate_up, shared_gate_up_meta,
                           shared_down,        shared_down_meta};
  on_moe_geometry([&](auto g) {
    using G = decltype(g);
    constexpr int64_t H = G::hidden_size, I = G::moe_intermediate, E = G::moe_num_experts;
    const MoeVariant v = moe_variant_at(M);
    check_variant(v);
    // Every argument is checked before the first launch.
    check_shared_pair(sh);
    if (x.down_kquant) check_kquant_role<G>(1, x.fmt_down);
    check_shared_formats<G>(sh);
    // Geometry 3's down (K = 640) is not a whole number of i-quant super-blocks.
    if (G::id == 3 && !x.down_kquant && is_iquant(x.fmt_down)) iquant::check_lowbit_k(QUILLON_HERE, x.fmt_down, I);
    const int64_t stride_gu = moe_lowbit_stride(0, E), stride_dn = moe_lowbit_stride(1, E);
    check_plane(x.fmt_gate_up, H, stride_gu);
    if (!x.down_kquant) check_plane(x.fmt_down, I, stride_dn);
    if (M <= 0) return;

    const MoeWorkspace w = carve<G>(M, workspace);
    const MoeTableRouting routing{token_ids, tid2eid};
    GroupedGemmTiles t = route_and_sort<G>(hidden, router_w, w, M, s, table ? &routing : nullptr);
    const LowBitOperand gu = lowbit_operand(x.gate_up, stride_gu);
    const int32_t nm_lb = moe_narrow_max_m(MoeNarrow::LowBit), nm_kq = moe_narrow_max_m(MoeNarrow::KQuant);
    auto shared_56 = [](int32_t f) { return f == kq::Q5_K || f == kq::Q6_K; };
    const bool merged = !x.down_kquant && !moe_lowbit_split_forced() && v.T == 128 && v.shuffled &&
                        is_iquant(x.fmt_gate_up) && is_iquant(x.fmt_down) && sh.kquant() &&
                        shared_56(sh.fmt_gate_up) && shared_56(sh.fmt_down);
    t.pass = 1;
    if (v.shuffled) shuffle_gathered_a(hidden, w.gathered, t, H, v.T, s);
    t.pass = 0;
    const void* a0 = v.shuffled ? w.gathered : hidden;
    if (merged) {
      const gemm_core::KQuantPlanes sgu = kquant_planes(sh.gate_up, sh.gate_up_meta),
                                    sdn = kquant_planes(sh.down, sh.down_meta);
      iquant::on_expert_format(QUILLON_HERE, x.fmt_gate_up, [&](auto q) {
        if constexpr (is_iquant(decltype(q)::value)) moe_lowbit_merged_product<q>(0, sh.fmt_gate_up, a0, gu, sgu, w.intermediate, t, s);
      });
      iquant::on_expert_format(QUILLON_HERE, x.fmt_down, [&](auto q) {
        if constexpr (is_iquant(decltype(q)::value))
          moe_lowbit_merged_product<q>(1, sh.fmt_down, w.intermediate, lowbit_operand(x.down, stride_dn), sdn,
                                       w.expert_rows, t, s);
      });
    } else {
      t.pass = 1;
      iquant::on_expert_format(QUILLON_HERE, x.fmt_gate_up, [&](auto q) {
        moe_lowbit_product<q>(0, v, nm_lb, a0, gu, w.intermediate, t, s);
      });
      if (x.down_kquant) {
        on_kquant_role<G>(1, x.fmt_down, [&](auto f) {
          moe_kquant_product<f>(1, false, v, nm_kq, w.intermediate, kquant_planes(x.down[0], x.down[1]),
                                w.expert_rows, t, s);
        });
      } else {
        iquant::on_expert_format(QUILLON_HERE, x.fmt_down, [&](auto q) {
          moe_lowbit_product<q>(1, v, nm_lb, w.intermediate, lowbit_operand(x.down, stride_dn), w.expert_rows, t,
                                s);
        });
      }
      shared_expert_pass<G>(sh, v, a0, w.intermediate, w.expert_rows, t, s);
    }
    moe_scatter_reduce(w.expert_rows, w.sorted_weights, w.inverse, out, M, s);
  });
}

}  // namespace quillon
