// The MoE token sort and the weighted scatter-reduce: (token, slot) pairs
// regrouped by expert into whole tiles of T rows, with no host
// synchronisation, and expert rows summed back per token in slot order.
#pragma once
#include <hip/hip_runtime_api.h>
#include <stdint.h>

namespace quillon {

// The sorted-row arrays of one call, all device memory sized by the capacity
// of moe_max_tiles at the variant's T.
struct MoeSortOut {
  int32_t* sorted_ids;      // [rows] (slot << 24) | token; padding rows hold M & 0xffffff
  int32_t* tile_expert;     // [max tiles]
  int32_t* tile_counts;     // [2] tiles in use, routed tiles
  float* sorted_weights;    // [rows] 0.0 on padding rows
  int32_t* inverse;         // [M, S] row position of each (token, slot)
};

// Bytes of the sort counters at the compute-unit count G: G rows of E_tot
// counts and a row of totals.
int64_t moe_sort_counter_bytes(int64_t E_tot, int64_t G);

// Sort of the routing table ids/weights [M, S] of the active geometry: one
// workgroup when the variant at M is unshuffled, else count, cumulative sum and
// place-and-pad over G workgroups (T 64 or 128 only).
void moe_sort(const int32_t* ids, const float* weights, const MoeSortOut& out, int32_t* counters, int64_t M,
              hipStream_t s);

// out[t] = sum over slots s of sorted_weights[p] * expert_rows[p], p =
// inverse[t, s], in ascending slot order; bf16 [rows, H] in, bf16 [M, H] out.
void moe_scatter_reduce(const void* expert_rows, const float* sorted_weights, const int32_t* inverse, void* out,
                        int64_t M, hipStream_t s);

}  // namespace quillon
