// Picking the token: a draw from the sorted candidates with a uniform number
// the caller supplies, or the greedy argmax straight from the logits.
#include "multinomial.h"

#include "../platform/device.h"
#include "../platform/fatal.h"
#include "../platform/launch.h"
#include "topk_topp.h"

namespace quillon {

namespace {
constexpr int kArgmaxThreads = 256;

// (value, index) pairs: the greater value wins, the lower index among equals.
QDEV void keep_better(float& v, int32_t& i, float ov, int32_t oi) {
  if (ov > v || (ov == v && oi < i)) {
    v = ov;
    i = oi;
  }
}
QDEV void wave_argmax(float& v, int32_t& i) {
  for (int m = 1; m < dev::kWave; m <<= 1) {
    const float ov = dev::shfl_xor_f(v, m);
    const int32_t oi = (int32_t)dev::shfl_xor((uint32_t)i, m);
    keep_better(v, i, ov, oi);
  }
}
}  // namespace

template <int CAP>
__global__ __launch_bounds__(CAP) void multinomial_kernel(const float* cand_probs, const int64_t* cand_ids,
                                                          const float* uniform, int64_t* out_ids, int64_t K) {
  __shared__ float scan[CAP];
  __shared__ int32_t first_last[2];
  const int t = (int)threadIdx.x;
  const int64_t b = blockIdx.x;
  const float v = t < K ? cand_probs[b * K + t] : 0.0f;

  if (t == 0) {
    first_last[0] = (int32_t)K;
    first_last[1] = 0;
  }
  float acc = v;
  scan[t] = acc;
  for (int step = 1; step < K; step <<= 1) {
    __syncthreads();
    const float add = t >= step ? scan[t - step] : 0.0f;
    __syncthreads();
    if (t >= step) {
      acc += add;
      scan[t] = acc;
    }
  }
  __syncthreads();

  // The first prefix strictly above u, among slots with a probability of their
  // own: the doubling sum adds in a different order per slot, so a zero slot's
  // prefix can round above a real one's. If rounding keeps the total at or
  // below u, the last candidate with any probability; never one past the cut.
  const float u = uniform[b];
  if (t < K && v > 0.0f) {
    if (u < acc) dev::atomic_min_lds(&first_last[0], (int32_t)t);
    dev::atomic_max_lds(&first_last[1], (int32_t)t);
  }
  __syncthreads();
  if (t == 0) {
    const int32_t first = first_last[0];
    out_ids[b] = cand_ids[b * K + (first < K ? first : first_last[1])];
  }
}

__global__ __launch_bounds__(kArgmaxThreads) void argmax_kernel(const float* logits, int64_t* out_ids, int64_t V) {
  constexpr int kWaves = kArgmaxThreads / dev::kWave;
  __shared__ float wave_val[kWaves];
  __shared__ int32_t wave_idx[kWaves];
  const int t = (int)threadIdx.x, lane = t % dev::kWave, wave = t / dev::kWave;
  const int64_t b = blockIdx.x;
  const float* x = logits + b * V;

  // Strictly greater only: a thread keeps its first maximum, NaN never wins,
  // and a thread that saw nothing better than -inf reports index 0.
  float best = -__builtin_inff();
  int32_t idx = 0;
  for (int64_t i = t; i < V; i += kArgmaxThreads) {
    const float v = x[i];
    if (v > best) {
      best = v;
      idx = (int32_t)i;
    }
  }
  wave_argmax(best, idx);
  if (lane == 0) {
    wave_val[wave] = best;
    wave_idx[wave] = idx;
  }
  __syncthreads();
  if (wave == 0) {
    best = lane < kWaves ? wave_val[lane] : -__builtin_inff();
    idx = lane < kWaves ? wave_idx[lane] : INT32_MAX;
    wave_argmax(best, idx);
    if (lane == 0) out_ids[b] = (int64_t)idx;
  }
}

void sampling_multinomial(const float* cand_probs, const int64_t* cand_ids, const float* uniform, int64_t* out_ids,
                          int64_t rows, int64_t K, hipStream_t s) {
  if (K < 1 || K > kSamplingMaxK) QUILLON_FATAL("k must be in 1..%d (got %lld)", kSamplingMaxK, (long long)K);
  if (rows <= 0) return;
  launch(&multinomial_kernel<kSamplingMaxK>, dim3((unsigned)rows), dim3(kSamplingMaxK), 0, s, cand_probs, cand_ids,
         uniform, out_ids, K);
}

void sampling_argmax(const float* logits, int64_t* out_ids, int64_t rows, int64_t V, hipStream_t s) {
  if (rows <= 0) return;
  launch(&argmax_kernel, dim3((unsigned)rows), dim3(kArgmaxThreads), 0, s, logits, out_ids, V);
}

}  // namespace quillon
