// Token sort and scatter-reduce of the MoE block.
#include <hip/hip_runtime_api.h>

#include "../device/device_config.h"
#include "../device/geometry.h"
#include "../platform/device.h"
#include "../platform/launch.h"
#include "../platform/numerics.h"
#include "moe_sort.h"
#include "moe_variant.h"

namespace quillon {

// Every sort kernel runs one thread per expert: the smallest multiple of 32
// above E_tot, so one thread beyond the last expert carries the padded total.
template <int E_TOT>
inline constexpr int kSortThreads = (E_TOT / 32 + 1) * 32;

QDEV int32_t packed_row(int64_t i, int S) {
  return (int32_t)(((uint32_t)(i % S) << 24) | ((uint32_t)(i / S) & 0xffffffu));
}

// Inclusive sum over the workgroup, within each wave by lane permutes, then
// across the waves' totals.
template <int NT>
QDEV int32_t block_inclusive_sum(int32_t v, int32_t* wave_sums) {
  const uint32_t lane = dev::lane_id(), w = threadIdx.x / 32;
  for (uint32_t d = 1; d < 32; d <<= 1) {
    const int32_t o = (int32_t)dev::bpermute((int)(lane >= d ? lane - d : lane), (uint32_t)v);
    if (lane >= d) v += o;
  }
  if (lane == 31) wave_sums[w] = v;
  __syncthreads();
  for (uint32_t i = 0; i < w; ++i) v += wave_sums[i];
  return v;
}

template <int E_TOT, int S>
__global__ __launch_bounds__(kSortThreads<E_TOT>) void moe_sort_one_stage_kernel(
    const int32_t* ids, const float* weights, int32_t* sorted_ids, int32_t* tile_expert, int32_t* tile_counts,
    float* sorted_weights, int32_t* inverse, int64_t n, int64_t M, int32_t T) {
  constexpr int NT = kSortThreads<E_TOT>;
  __shared__ int32_t count[E_TOT], cursor[E_TOT], offset[E_TOT + 1], wave_sums[NT / 32];
  const int e = (int)threadIdx.x;
  if (e < E_TOT) count[e] = cursor[e] = 0;
  __syncthreads();
  for (int64_t i = e; i < n; i += NT) dev::atomic_add_lds(&count[ids[i]], 1);
  __syncthreads();
  const int32_t incl = block_inclusive_sum<NT>(e < E_TOT ? (count[e] + T - 1) / T * T : 0, wave_sums);
  if (e < E_TOT) offset[e + 1] = incl;
  if (e == 0) offset[0] = 0;
  __syncthreads();
  if (e == 0) {
    tile_counts[0] = offset[E_TOT] / T;
    tile_counts[1] = offset[E_TOT - 1] / T;
  }
  for (int64_t i = e; i < n; i += NT) {
    const int32_t x = ids[i];
    const int32_t pos = offset[x] + dev::atomic_add_lds(&cursor[x], 1);
    sorted_ids[pos] = packed_row(i, S);
    sorted_weights[pos] = weights[i];
    inverse[i] = pos;
  }
  if (e < E_TOT) {
    for (int32_t p = offset[e] + count[e]; p < offset[e + 1]; ++p) {
      sorted_ids[p] = (int32_t)(M & 0xffffff);
      sorted_weights[p] = 0.0f;
    }
    for (int32_t t = offset[e] / T; t < offset[e + 1] / T; ++t) tile_expert[t] = e;
  }
}

// Workgroup b counts the ids of slice b into row b of the counters.
template <int E_TOT>
__global__ __launch_bounds__(kSortThreads<E_TOT>) void moe_sort_count_kernel(const int32_t* ids, int32_t* counters,
                                                                             int64_t n, int32_t G) {
  constexpr int NT = kSortThreads<E_TOT>;
  __shared__ int32_t hist[E_TOT];
  const int e = (int)threadIdx.x;
  const int64_t b = blockIdx.x, c = (n + G - 1) / G;
  const int64_t lo = b * c, hi = lo + c < n ? lo + c : n;
  if (e < E_TOT) hist[e] = 0;
  __syncthreads();
  for (int64_t i = lo + e; i < hi; i += NT) dev::atomic_add_lds(&hist[ids[i]], 1);
  __syncthreads();
  if (e < E_TOT) counters[b * E_TOT + e] = hist[e];
}

// Totals, padded offsets, tile counts and owners; the counter rows become the
// per-workgroup write cursors of the place stage.
template <int E_TOT, int T>
__global__ __launch_bounds__(kSortThreads<E_TOT>) void moe_sort_cumsum_kernel(int32_t* counters, int32_t* totals,
                                                                              int32_t* tile_expert,
                                                                              int32_t* tile_counts, int32_t G) {
  constexpr int NT = kSortThreads<E_TOT>;
  __shared__ int32_t scan[2][NT];
  const int e = (int)threadIdx.x;
  int32_t total = 0;
  if (e < E_TOT) {
    for (int32_t b = 0; b < G; ++b) total += counters[(int64_t)b * E_TOT + e];
    totals[e] = total;
  }
  const int32_t mine = (total + T - 1) / T * T;
  int cur = 0;
  scan[0][e] = mine;
  __syncthreads();
  for (int d = 1; d < NT; d <<= 1) {
    const int32_t x = scan[cur][e] + (e >= d ? scan[cur][e - d] : 0);
    scan[cur ^ 1][e] = x;
    cur ^= 1;
    __syncthreads();
  }
  // Exclusive from here on: entry E_TOT (a thread with nothing of its own) is
  // the whole padded length.
  const int32_t off = scan[cur][e] - mine;
  scan[cur ^ 1][e] = off;
  __syncthreads();
  if (e == 0) {
    tile_counts[0] = scan[cur ^ 1][E_TOT] / T;
    tile_counts[1] = scan[cur ^ 1][E_TOT - 1] / T;
  }
  if (e < E_TOT) {
    int32_t run = off;
    for (int32_t b = 0; b < G; ++b) {
      const int32_t c = counters[(int64_t)b * E_TOT + e];
      counters[(int64_t)b * E_TOT + e] = run;
      run += c;
    }
    for (int32_t t = off / T; t < (off + mine) / T; ++t) tile_expert[t] = e;
  }
}

// Workgroup b places the rows of its slice through private cursors (the shared
// expert's rows in token order), then pads its share of the experts.
template <int E_TOT, int K, int S, int T>
__global__ __launch_bounds__(kSortThreads<E_TOT>) void moe_sort_place_pad_kernel(
    const int32_t* ids, const float* weights, const int32_t* counters, const int32_t* totals,
    const int32_t* tile_counts, int32_t* sorted_ids, float* sorted_weights, int32_t* inverse, int64_t n, int64_t M,
    int32_t G) {
  constexpr int NT = kSortThreads<E_TOT>;
  constexpr int E = E_TOT - 1;
  __shared__ int32_t cursor[E_TOT], offset[E_TOT + 1];
  const int e = (int)threadIdx.x;
  const int64_t b = blockIdx.x, c = (n + G - 1) / G;
  const int64_t lo = b * c, hi = lo + c < n ? lo + c : n;
  if (e < E_TOT) {
    cursor[e] = counters[b * E_TOT + e];
    offset[e] = counters[e];
  }
  if (e == 0) offset[E_TOT] = tile_counts[0] * T;
  __syncthreads();
  for (int64_t i = lo + e; i < hi; i += NT) {
    const int64_t token = i / S;
    const int32_t pos = i % S == K ? offset[E] + (int32_t)token : dev::atomic_add_lds(&cursor[ids[i]], 1);
    sorted_ids[pos] = packed_row(i, S);
    sorted_weights[pos] = weights[i];
    inverse[i] = pos;
  }
  __syncthreads();
  const int32_t chunk = (E_TOT + G - 1) / G;
  const int32_t first = (int32_t)b * chunk, last = first + chunk < E_TOT ? first + chunk : E_TOT;
  for (int32_t x = first; x < last; ++x) {
    for (int32_t p = offset[x] + totals[x] + e; p < offset[x + 1]; p += NT) {
      sorted_ids[p] = (int32_t)M;
      sorted_weights[p] = 0.0f;
    }
  }
}

// Workgroup (t, y): 8 columns per thread of token t, chunk y of SPLIT.
template <int H, int S, int SPLIT, int THREADS>
__global__ __launch_bounds__(THREADS) void moe_scatter_reduce_kernel(const uint16_t* rows, const float* sorted_weights,
                                                                     const int32_t* inverse, uint16_t* out) {
  static_assert(H == SPLIT * THREADS * 8, "each thread owns one 16-byte chunk");
  const int64_t t = blockIdx.x;
  const int64_t col = ((int64_t)blockIdx.y * THREADS + threadIdx.x) * 8;
  float acc[8] = {};
  for (int s = 0; s < S; ++s) {
    const int64_t pos = inverse[t * S + s];
    const float w = sorted_weights[pos];
    const dev::u32x4 x = *reinterpret_cast<const dev::u32x4*>(rows + pos * H + col);
    for (int j = 0; j < 4; ++j) {
      acc[2 * j] = __builtin_fmaf(w, dev::u2f(x[j] << 16), acc[2 * j]);
      acc[2 * j + 1] = __builtin_fmaf(w, dev::u2f(x[j] & 0xffff0000u), acc[2 * j + 1]);
    }
  }
  dev::u32x4 o;
  for (int j = 0; j < 4; ++j)
    o[j] = (uint32_t)num::bf16_rne(acc[2 * j]) | ((uint32_t)num::bf16_rne(acc[2 * j + 1]) << 16);
  *reinterpret_cast<dev::u32x4*>(out + t * H + col) = o;
}

int64_t moe_sort_counter_bytes(int64_t E_tot, int64_t G) { return (G + 1) * E_tot * 4; }

void moe_sort(const int32_t* ids, const float* weights, const MoeSortOut& o, int32_t* counters, int64_t M,
              hipStream_t s) {
  on_geometry<Qwen36MoeA3B, DeepSeekV4Flash, Qwen38FlashNext>(QUILLON_HERE, [&](auto g) {
    using G = decltype(g);
    constexpr int E_TOT = (int)G::moe_total_experts, K = (int)G::moe_top_k, S = (int)G::moe_top_k_total;
    constexpr int NT = kSortThreads<E_TOT>;
    const MoeVariant v = moe_variant_at(M);
    const int64_t n = M * S;
    if (!v.shuffled) {
      if (M <= 0) return;
      launch(&moe_sort_one_stage_kernel<E_TOT, S>, dim3(1), dim3(NT), 0, s, ids, weights, o.sorted_ids, o.tile_expert,
             o.tile_counts, o.sorted_weights, o.inverse, n, M, v.T);
      return;
    }
    dispatch_value<MoeRowBlock>(QUILLON_HERE, v.T, [&](auto t) {
      constexpr int T = decltype(t)::value;
      if (M <= 0) return;
      const int32_t cus = num_cus();
      int32_t* totals = counters + (int64_t)cus * E_TOT;
      launch(&moe_sort_count_kernel<E_TOT>, dim3(cus), dim3(NT), 0, s, ids, counters, n, cus);
      launch(&moe_sort_cumsum_kernel<E_TOT, T>, dim3(1), dim3(NT), 0, s, counters, totals, o.tile_expert,
             o.tile_counts, cus);
      launch(&moe_sort_place_pad_kernel<E_TOT, K, S, T>, dim3(cus), dim3(NT), 0, s, ids, weights,
             static_cast<const int32_t*>(counters), static_cast<const int32_t*>(totals),
             static_cast<const int32_t*>(o.tile_counts), o.sorted_ids, o.sorted_weights, o.inverse, n, M, cus);
    });
  });
}

void moe_scatter_reduce(const void* expert_rows, const float* sorted_weights, const int32_t* inverse, void* out,
                        int64_t M, hipStream_t s) {
  on_geometry<Qwen36MoeA3B, DeepSeekV4Flash, Qwen38FlashNext>(QUILLON_HERE, [&](auto g) {
    using G = decltype(g);
    constexpr int H = (int)G::hidden_size, S = (int)G::moe_top_k_total;
    if (M <= 0) return;
    const int64_t cus = num_cus();
    const int split = M >= cus ? 1 : 2 * M >= cus ? 2 : 4 * M >= cus ? 4 : 8;
    dispatch_value<ValueList<1, 2, 4, 8>>(QUILLON_HERE, split, [&](auto sp) {
      constexpr int SPLIT = decltype(sp)::value, THREADS = H / 8 / SPLIT;
      launch(&moe_scatter_reduce_kernel<H, S, SPLIT, THREADS>, dim3((unsigned)M, SPLIT), dim3(THREADS), 0, s,
             static_cast<const uint16_t*>(expert_rows), sorted_weights, inverse, static_cast<uint16_t*>(out));
    });
  });
}

}  // namespace quillon
