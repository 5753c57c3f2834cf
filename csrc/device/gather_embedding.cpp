// Embedding gather: token ids to hidden rows, one 16-byte chunk per thread
// step, so every geometry's row width is a whole number of chunks.
#include "gather_embedding.h"

#include "../platform/device.h"
#include "../platform/launch.h"
#include "../platform/numerics.h"
#include "device_config.h"
#include "geometry.h"

namespace quillon {

template <class T, int HIDDEN, int THREADS>
__global__ __launch_bounds__(THREADS) void gather_embedding_kernel(const int64_t* ids, const T* table, T* out,
                                                                   int64_t n) {
  constexpr int64_t kChunks = HIDDEN * (int64_t)sizeof(T) / 16;
  static_assert(HIDDEN * sizeof(T) % 16 == 0, "rows are whole 16-byte chunks");
  const auto* src = reinterpret_cast<const dev::u32x4*>(table);
  auto* dst = reinterpret_cast<dev::u32x4*>(out);
  const int64_t total = n * kChunks;
  const int64_t stride = (int64_t)gridDim.x * THREADS;
  for (int64_t i = (int64_t)blockIdx.x * THREADS + threadIdx.x; i < total; i += stride) {
    const int64_t r = i / kChunks, c = i - r * kChunks;
    dst[i] = src[ids[r] * kChunks + c];
  }
}

namespace {
constexpr int kGatherThreads = 256;

// One workgroup per 256 chunks, at most 64 per compute unit; the grid-stride
// loop covers the rest.
int64_t gather_grid(int64_t n, int64_t hidden) {
  const int64_t cap = 64 * (int64_t)num_cus();
  const int64_t chunks = n * (hidden / 8);
  if (chunks <= 0) return 0;
  const int64_t want = (chunks + kGatherThreads - 1) / kGatherThreads;
  return want < cap ? want : cap;
}
}  // namespace

void gather_embedding(const int64_t* ids, const void* table, void* out, int64_t n, hipStream_t s) {
  on_geometry<Qwen36MoeA3B, Qwen3627B, DeepSeekV4Flash, Qwen38FlashNext>(QUILLON_HERE, [&](auto g) {
    using G = decltype(g);
    constexpr int H = (int)G::hidden_size;
    // n 0 launches an empty grid on purpose: the caller gets HIP's answer.
    const int64_t grid = gather_grid(n, H);
    launch(&gather_embedding_kernel<num::bf16, H, kGatherThreads>, dim3((unsigned)grid), dim3(kGatherThreads), 0, s,
           ids, static_cast<const num::bf16*>(table), static_cast<num::bf16*>(out), n);
  });
}

}  // namespace quillon
