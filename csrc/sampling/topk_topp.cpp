// Temperature softmax and exact top-k / top-p over float probabilities. The
// top k is found by a radix search on the float bits, never by sorting the
// vocabulary: five reads of the row and a bitonic sort of at most 1024 slots.
#include "topk_topp.h"

#include "../platform/device.h"
#include "../platform/fatal.h"
#include "../platform/launch.h"

namespace quillon {

namespace {
constexpr int kSoftmaxThreads = 256;

// Butterflies leave the same value in every lane; xor 1 first makes the sum
// a pairwise tree over consecutive lanes.
QDEV float wave_max(float v) {
  for (int m = 1; m < dev::kWave; m <<= 1) {
    const float o = dev::shfl_xor_f(v, m);
    v = o > v ? o : v;
  }
  return v;
}
QDEV float wave_sum(float v) {
  for (int m = 1; m < dev::kWave; m <<= 1) v += dev::shfl_xor_f(v, m);
  return v;
}
}  // namespace

__global__ __launch_bounds__(kSoftmaxThreads) void softmax_kernel(const float* logits, float* probs, int64_t V,
                                                                 const float* temperature) {
  constexpr int kWaves = kSoftmaxThreads / dev::kWave;
  __shared__ float part[kWaves];
  const int t = (int)threadIdx.x, lane = t % dev::kWave, wave = t / dev::kWave;
  const int64_t b = blockIdx.x;
  const float* x = logits + b * V;
  float* y = probs + b * V;

  // NaNs never win the comparison, so the maximum is that of the rest.
  float m = -__builtin_inff();
  for (int64_t i = t; i < V; i += kSoftmaxThreads) {
    const float v = x[i];
    m = v > m ? v : m;
  }
  m = wave_max(m);
  if (lane == 0) part[wave] = m;
  __syncthreads();
  m = wave_max(lane < kWaves ? part[lane] : -__builtin_inff());
  __syncthreads();  // part is reused by the sum

  const float inv_t = 1.0f / temperature[b];
  float s = 0.0f;
  for (int64_t i = t; i < V; i += kSoftmaxThreads) {
    const float e = dev::exp((x[i] - m) * inv_t);
    y[i] = e;
    s += e;
  }
  s = wave_sum(s);
  if (lane == 0) part[wave] = s;
  __syncthreads();
  s = wave_sum(lane < kWaves ? part[lane] : 0.0f);

  // Each thread rescales exactly the elements it wrote.
  const float inv_sum = 1.0f / s;
  for (int64_t i = t; i < V; i += kSoftmaxThreads) y[i] = y[i] * inv_sum;
}

// One block of CAP threads per row; K2 (a power of two, K <= K2 <= CAP) is the
// width of the sort and of the prefix sum.
template <int CAP>
__global__ __launch_bounds__(CAP) void topk_topp_kernel(const float* probs, float* cand_probs, int64_t* cand_ids,
                                                        int64_t V, int64_t K, int64_t K2, const int32_t* top_k,
                                                        const float* top_p) {
  constexpr int kWaves = CAP / dev::kWave;
  static_assert(kWaves <= dev::kWave, "wave sums fit one wave");
  __shared__ float scan[CAP];
  __shared__ int32_t slot_id[CAP];
  __shared__ float slot_val[CAP];
  __shared__ int32_t bins[256];
  __shared__ int32_t rev[256];
  __shared__ float part[kWaves];
  __shared__ int32_t counters[2];
  __shared__ int32_t cell;  // the pass's bin, later the cut

  const int t = (int)threadIdx.x, lane = t % dev::kWave, wave = t / dev::kWave;
  const int64_t b = blockIdx.x;
  const uint32_t* row = reinterpret_cast<const uint32_t*>(probs + b * V);
  const int w = (int)K2;
  const float p = top_p[b];
  int k = (int)K;
  if (top_k) {
    const int32_t want = top_k[b];
    k = want < 1 ? 1 : (want > K ? (int)K : (int)want);
  }

  // Step 1: non-negative floats order like their bits, so the k-th largest
  // value is found a byte at a time from the top. `sought` is how many of the
  // elements matching the fixed bytes still belong to the top k.
  if (t < 2) counters[t] = 0;
  uint32_t fixed = 0, mask = 0;
  int sought = k;
  for (int shift = 24; shift >= 0; shift -= 8) {
    if (t < 256) bins[t] = 0;
    __syncthreads();
    for (int64_t i = t; i < V; i += CAP) {
      const uint32_t u = row[i];
      if ((u & mask) == fixed) dev::atomic_add_lds(&bins[(u >> shift) & 0xffu], 1);
    }
    __syncthreads();
    // Inclusive prefix over the bins from the highest byte down.
    const int own = t < 256 ? bins[255 - t] : 0;
    int acc = own;
    if (t < 256) rev[t] = acc;
    for (int step = 1; step < 256; step <<= 1) {
      __syncthreads();
      const int add = t < 256 && t >= step ? rev[t - step] : 0;
      __syncthreads();
      if (t < 256) {
        acc += add;
        rev[t] = acc;
      }
    }
    // The prefix is monotone: exactly one bin crosses `sought`.
    if (t < 256 && acc >= sought && acc - own < sought) cell = t;
    __syncthreads();
    const int sel = cell;
    sought -= rev[sel] - bins[255 - sel];
    fixed |= (255u - (uint32_t)sel) << shift;
    mask |= 0xffu << shift;
    __syncthreads();  // bins, rev and cell are rewritten by the next pass
  }
  const uint32_t T = fixed;
  const int need = sought, above = k - sought;

  // Step 2: collect. Which of several elements equal to T get in is the
  // order of the atomics.
  for (int64_t i = t; i < V; i += CAP) {
    const uint32_t u = row[i];
    if (u > T) {
      const int s = dev::atomic_add_lds(&counters[0], 1);
      if (s < above) {
        slot_val[s] = dev::u2f(u);
        slot_id[s] = (int32_t)i;
      }
    } else if (u == T) {
      const int s = dev::atomic_add_lds(&counters[1], 1);
      if (s < need) {
        slot_val[above + s] = dev::u2f(u);
        slot_id[above + s] = (int32_t)i;
      }
    }
  }
  if (t >= k && t < w) {
    slot_val[t] = -1.0f;
    slot_id[t] = -1;
  }
  __syncthreads();

  // Step 3: bitonic sort, descending by value, the lower index first among
  // equals, so the order depends only on the set collected.
  for (int size = 2; size <= w; size <<= 1) {
    for (int stride = size >> 1; stride > 0; stride >>= 1) {
      if (t < w / 2) {
        const int i = 2 * t - (t & (stride - 1)), j = i + stride;
        const float vi = slot_val[i], vj = slot_val[j];
        const int32_t ii = slot_id[i], ij = slot_id[j];
        const bool j_first = vj > vi || (vj == vi && ij < ii);
        if (j_first == ((i & size) == 0)) {
          slot_val[i] = vj;
          slot_val[j] = vi;
          slot_id[i] = ij;
          slot_id[j] = ii;
        }
      }
      __syncthreads();
    }
  }

  // Step 4: renormalise the first k.
  const float v = t < k ? slot_val[t] : 0.0f;
  float s = wave_sum(v);
  if (lane == 0) part[wave] = s;
  if (t == 0) cell = k - 1;  // the cut when no prefix reaches top_p
  __syncthreads();
  s = wave_sum(lane < kWaves ? part[lane] : 0.0f);
  const float inv_s = s > 0.0f ? 1.0f / s : 0.0f;
  const float r = t < k ? v * inv_s : 0.0f;

  // Step 5: inclusive prefix by doubling over K2 slots, then the first slot
  // whose prefix reaches top_p; that token stays in.
  float acc = r;
  if (t < w) scan[t] = acc;
  for (int step = 1; step < w; step <<= 1) {
    __syncthreads();
    const float add = t < w && t >= step ? scan[t - step] : 0.0f;
    __syncthreads();
    if (t < w && t >= step) {
      acc += add;
      scan[t] = acc;
    }
  }
  __syncthreads();
  if (t < k && acc >= p) dev::atomic_min_lds(&cell, t);
  __syncthreads();

  // Step 6: output, renormalised again up to the cut.
  const int cut = cell;
  const float c = scan[cut];
  const float inv = c > 0.0f ? 1.0f / c : 0.0f;
  if (t < K) {
    cand_probs[b * K + t] = t <= cut ? r * inv : 0.0f;
    cand_ids[b * K + t] = (int64_t)slot_id[t];
  }
}

void sampling_softmax(const float* logits, float* probs, int64_t rows, int64_t V, const float* temperature,
                      hipStream_t s) {
  // No row check: zero rows is an empty grid and HIP's answer.
  launch(&softmax_kernel, dim3((unsigned)rows), dim3(kSoftmaxThreads), 0, s, logits, probs, V, temperature);
}

void sampling_topk_topp(const float* probs, float* cand_probs, int64_t* cand_ids, int64_t rows, int64_t V,
                        int64_t K, const int32_t* top_k, const float* top_p, hipStream_t s) {
  if (K < 1 || K > kSamplingMaxK)
    QUILLON_FATAL("top_k width must be in 1..%d (got %lld)", kSamplingMaxK, (long long)K);
  if (K > V) QUILLON_FATAL("top_k (%lld) cannot exceed the vocabulary (%lld)", (long long)K, (long long)V);
  if (rows <= 0) return;
  int64_t K2 = 1;
  while (K2 < K) K2 <<= 1;
  launch(&topk_topp_kernel<kSamplingMaxK>, dim3((unsigned)rows), dim3(kSamplingMaxK), 0, s, probs, cand_probs,
         cand_ids, V, K, K2, top_k, top_p);
}

}  // namespace quillon
