// The pieces every fused MoE entry shares: workspace carving, the router and
// sort prologue that fills the tile record, and one grouped product at a
// variant and M. Included by the entries and by the per-format units.
#pragma once
#include <type_traits>

#include "../device/device_config.h"
#include "../device/geometry.h"
#include "../gemm_core/gemm_core_moe_expert.h"
#include "../gemm_core/gemm_shuffle.h"
#include "../platform/fatal.h"
#include "../platform/launch.h"
#include "moe_sort.h"
#include "moe_variant.h"
#include "router.h"

namespace quillon::moe_stage {

using gemm_core::GroupedGemmTiles;

template <class F>
void on_moe_geometry(F&& f) {
  on_geometry<Qwen36MoeA3B, DeepSeekV4Flash, Qwen38FlashNext>(QUILLON_HERE, f);
}

inline int64_t align256(int64_t x) { return (x + 255) / 256 * 256; }

// The 14 values of the workspace at M, in order; sizes hold with a null base.
struct MoeWorkspace {
  float* weights;
  int32_t* ids;
  int32_t* sorted_ids;
  int32_t* tile_expert;
  int32_t* tile_counts;
  int32_t* counters;
  float* logits;
  void* hidden_shuffled;
  void* gathered;
  void* intermediate;
  void* expert_rows;
  float* sorted_weights;
  int32_t* inverse;
  int64_t total;
  int64_t max_tiles;
};

template <class G>
MoeWorkspace carve(int64_t M, void* base) {
  constexpr int64_t H = G::hidden_size, I = G::moe_intermediate, E = G::moe_num_experts,
                    E_TOT = G::moe_total_experts, S = G::moe_top_k_total;
  const int64_t T = moe_variant_at(M).T;
  const int64_t tiles = M > 0 ? moe_max_tiles(M, S, T, E_TOT) : 0, rows = tiles * T;
  const int64_t shuffle = moe_router_shuffle_bytes(M);
  const int64_t sizes[13] = {align256(M * S * 4),   align256(M * S * 4), align256(rows * 4),
                             align256(tiles * 4),   256,
                             align256(moe_sort_counter_bytes(E_TOT, num_cus())),
                             align256(M * E * 4),   align256(shuffle),  T * tiles * H * 2,
                             rows * I * 2,          rows * H * 2,       align256(rows * 4),
                             align256(M * S * 4)};
  void* ptr[13];
  int64_t off = 0;
  for (int i = 0; i < 13; ++i) {
    ptr[i] = base != nullptr ? static_cast<unsigned char*>(base) + off : nullptr;
    off += sizes[i];
  }
  if (sizes[7] == 0) ptr[7] = nullptr;
  return {static_cast<float*>(ptr[0]),   static_cast<int32_t*>(ptr[1]), static_cast<int32_t*>(ptr[2]),
          static_cast<int32_t*>(ptr[3]), static_cast<int32_t*>(ptr[4]), static_cast<int32_t*>(ptr[5]),
          static_cast<float*>(ptr[6]),   ptr[7],                        ptr[8],
          ptr[9],                        ptr[10],                       static_cast<float*>(ptr[11]),
          static_cast<int32_t*>(ptr[12]), off,                          tiles};
}

// Only the table's rows are compiled: 16 unshuffled, 64 and 128 shuffled.
inline void check_variant(const MoeVariant& v) {
  const bool ok = v.shuffled ? (v.T == 64 || v.T == 128) : v.T == 16;
  if (!ok) QUILLON_FATAL("no compiled variant for %d", v.T);
}

// Table routing: each token's experts from its row of `tid2eid`.
struct MoeTableRouting {
  const int64_t* token_ids;
  const int32_t* tid2eid;
};

// Router (by scores, or by the table when one is given) and sort into the
// carved workspace; the tile record of pass 0.
template <class G>
GroupedGemmTiles route_and_sort(const void* hidden, const void* router_w, const MoeWorkspace& w, int64_t M,
                                hipStream_t s, const MoeTableRouting* table = nullptr) {
  if (table != nullptr)
    moe_router_tid2eid(hidden, router_w, table->token_ids, table->tid2eid, w.weights, w.ids, w.hidden_shuffled, M, s);
  else
    moe_router(hidden, router_w, w.weights, w.ids, w.logits, w.hidden_shuffled, M, s);
  moe_sort(w.ids, w.weights, {w.sorted_ids, w.tile_expert, w.tile_counts, w.sorted_weights, w.inverse}, w.counters,
           M, s);
  GroupedGemmTiles t{};
  t.sorted_ids = w.sorted_ids;
  t.tile_expert = w.tile_expert;
  t.tile_counts = w.tile_counts;
  t.max_tiles = w.max_tiles;
  t.M = M;
  t.shared_expert_id = w.hidden_shuffled != nullptr ? (int32_t)G::moe_shared_expert_id : -1;
  t.hidden_shuffled = w.hidden_shuffled;
  return t;
}

template <class W>
inline constexpr bool kDualW = gemm_core::MoeIsDual<W>::value;

// The clamp stands on the gate-up of geometry 2 for every kind but fp8 and
// the dual k-quant form.
template <class G, int ROLE, class W>
inline constexpr int kLimit =
    ROLE == 0 && G::id == 2 && !std::is_same_v<W, gemm_core::MoeWFp8> && !kDualW<W> ? 10000 : 0;

// One grouped product: narrow pair dots when unshuffled and M is at most the
// kind's maximum, else the 16-row matrix tile, or the LDS tile of T rows when
// shuffled. BN is the decode kernels' column tile; the dual form is narrow only.
template <class G, int ROLE, class W, int BN = 128>
void grouped_product(const MoeVariant& v, int32_t narrow_max, const void* A, typename W::Operand B, void* C,
                     const GroupedGemmTiles& t, hipStream_t s) {
  using namespace gemm_core;
  constexpr int64_t H = G::hidden_size, I = G::moe_intermediate;
  constexpr int64_t N = ROLE == 0 ? 2 * I : H;
  constexpr int L = kLimit<G, ROLE, W>;
  const MoeGroupedParams<typename W::Operand> p{static_cast<const uint16_t*>(A), B, C, ROLE == 0 ? I : H, t};
  const unsigned tiles = (unsigned)t.max_tiles;
  if (tiles == 0) return;
  auto go = [&](auto cfg) {
    using Cfg = decltype(cfg);
    launch(&moe_expert_kernel<Cfg>, dim3((unsigned)(N / Cfg::Path::BN), tiles), dim3(Cfg::kThreads), 0, s, p);
  };
  if (!v.shuffled && t.M <= narrow_max) {
    if (t.M > 4) QUILLON_FATAL("moe narrow decode covers M in 1..%d; got %lld", 4, (long long)t.M);
    if constexpr (std::is_same_v<W, MoeWBf16>) {
      dispatch_value<ValueList<1, 2, 3, 4>>(QUILLON_HERE, t.M, [&](auto r) {
        go(MoeExpertConfig<ROLE, MoeDecodeDot2<decltype(r)::value, BN>, W, H, I, L>{});
      });
    } else {
      dispatch_value<ValueList<1, 2, 4>>(QUILLON_HERE, t.M <= 2 ? t.M : 4, [&](auto r) {
        go(MoeExpertConfig<ROLE, MoeDecodeDot2<decltype(r)::value, BN>, W, H, I, L>{});
      });
    }
  } else if constexpr (!kDualW<W>) {
    if (!v.shuffled) {
      go(MoeExpertConfig<ROLE, MoeDecodeWmmaBN<BN>, W, H, I, L>{});
    } else {
      dispatch_value<MoeRowBlock>(QUILLON_HERE, v.T, [&](auto bm) {
        go(MoeExpertConfig<ROLE, MoePrefillLds<decltype(bm)::value, 128>, W, H, I, L>{});
      });
    }
  }
}

}  // namespace quillon::moe_stage
