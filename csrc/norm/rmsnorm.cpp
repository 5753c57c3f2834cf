// RMSNorm of the geometries with a fixed hidden width: the row-major decode
// norm and the prefill norm that writes the GEMM's blk32 A panel itself.
#include "rmsnorm.h"

#include "../device/geometry.h"
#include "../gemm_core/gemm_shuffle.h"
#include "../platform/fatal.h"
#include "../platform/launch.h"
#include "rmsnorm_core.h"

namespace quillon {
namespace norm {

// Rows per block and threads of the prefill norm per hidden width. Every shape
// reads its rows in exactly four 16-byte steps per thread.
template <int H>
struct ShuffledShape;
template <>
struct ShuffledShape<2048> {
  static constexpr int rows = 8, threads = 512, lds = 33824;
};
template <>
struct ShuffledShape<5120> {
  static constexpr int rows = 4, threads = 640, lds = 41552;
};
template <>
struct ShuffledShape<2560> {
  static constexpr int rows = 8, threads = 640, lds = 42144;
};

// Staging rows padded by 64 bytes, then one partial per (row, wave), then r per row.
template <int H, int R, int THREADS>
constexpr int shuffled_lds_bytes() {
  return R * (2 * H + 64) + (THREADS / 32) * R * 4 + R * 4;
}

template <int H, bool RESIDUAL, class Tile, int R, int THREADS>
__global__ __launch_bounds__(THREADS) void rmsnorm_shuffled_kernel(const uint16_t* x, uint16_t* residual,
                                                                    const uint16_t* weight, uint16_t* out,
                                                                    int64_t rows, float eps) {
  constexpr int kChunks = H / 8;
  constexpr int kPitch = 2 * H + 64;
  constexpr int kWaves = THREADS / 32;
  constexpr int kSteps = 4;
  constexpr int kRowsPerStep = THREADS / kChunks;
  static_assert(R * kChunks == kSteps * THREADS, "four chunks per thread");
  static_assert(THREADS % kChunks == 0 && kChunks % 32 == 0,
                "a thread keeps its chunk column and a wave stays inside one row per step");
  static_assert(Tile::BM % R == 0, "blocks tile the padded panel");
  __shared__ __attribute__((aligned(16))) uint8_t stage[R * kPitch];
  __shared__ float part[R * kWaves];
  __shared__ float rinv[R];

  const int t = (int)threadIdx.x, lane = t % 32, wave = t / 32;
  const int64_t row0 = (int64_t)blockIdx.x * R;
  const int c = t % kChunks;    // the same chunk column in every step
  const int rb0 = t / kChunks;  // row of step 0; step k adds k * kRowsPerStep

  // Load, residual, stage; a pad row reads nothing and stages zeros.
  float wsum[kSteps];
  for (int k = 0; k < kSteps; ++k) {
    const int rb = rb0 + k * kRowsPerStep;
    const int64_t row = row0 + rb;
    float v[8] = {0.f, 0.f, 0.f, 0.f, 0.f, 0.f, 0.f, 0.f};
    if (row < rows) {
      load8(x + row * H + c * 8, v);
      if constexpr (RESIDUAL) add_residual8(v, residual + row * H + c * 8);
    }
    *reinterpret_cast<dev::u32x4*>(stage + rb * kPitch + c * 16) = pack_bf16x8(v);
    wsum[k] = wave_butterfly(pair_sums8(v));
  }
  // A wave's partial for a row it did not touch is zero.
  if (lane < R) {
    float p = 0.0f;
    for (int k = 0; k < kSteps; ++k)
      if (lane == rb0 + k * kRowsPerStep) p = wsum[k];
    part[lane * kWaves + wave] = p;
  }
  __syncthreads();
  if (wave == 0) {
    float mine = 0.0f;
    for (int j = 0; j < R; ++j) {
      float s = lane < kWaves ? part[j * kWaves + lane] : 0.0f;
      s = wave_butterfly(s);
      if (lane == j) mine = s;
    }
    if (lane < R) rinv[lane] = inv_rms<H>(mine, eps);
  }
  __syncthreads();

  // Output: R rows fill R * 64 contiguous bytes of each 32-column tile.
  for (int k = 0; k < kSteps; ++k) {
    const int u = t + k * THREADS;
    const int tile = u / (4 * R), rb = (u % (4 * R)) / 4, slot = u % 4;
    const int oc = tile * 4 + slot;
    float v[8];
    load8(reinterpret_cast<const uint16_t*>(stage + rb * kPitch + oc * 16), v);
    scale8(v, rinv[rb], weight + oc * 8);
    // A pad row is stored as +0 outright: its staged zeros times a negative
    // weight would give -0, and times an eps-0 r NaN.
    store16(out, blk32_chunk_offset(row0 + rb, oc, kChunks), row0 + rb < rows ? pack_bf16x8(v) : zero16());
  }
}

template <class G, bool RESIDUAL>
void launch_rowmajor(const void* x, void* residual, const void* weight, void* out, int64_t rows, float eps,
                     hipStream_t s) {
  constexpr int H = (int)G::hidden_size;
  launch(&rmsnorm_kernel<H, RESIDUAL, H / 8, true, false, uint16_t>, dim3((unsigned)rows), dim3(H / 8), 0, s,
         static_cast<const uint16_t*>(x), static_cast<uint16_t*>(residual), static_cast<const uint16_t*>(weight),
         static_cast<uint16_t*>(out), (int64_t)H, rows, eps);
}

template <class G, bool RESIDUAL>
void launch_shuffled(const void* x, void* residual, const void* weight, void* out, int64_t rows, float eps,
                     hipStream_t s) {
  constexpr int H = (int)G::hidden_size;
  using S = ShuffledShape<H>;
  static_assert(shuffled_lds_bytes<H, S::rows, S::threads>() == S::lds, "LDS budget of the prefill norm");
  // The panel holds whole row tiles of the prefill GEMM.
  using Tile = gemm_core::PrefillTile;
  const int64_t grid = Tile::padded_rows(rows) / S::rows;
  launch(&rmsnorm_shuffled_kernel<H, RESIDUAL, Tile, S::rows, S::threads>, dim3((unsigned)grid),
         dim3(S::threads), 0, s, static_cast<const uint16_t*>(x), static_cast<uint16_t*>(residual),
         static_cast<const uint16_t*>(weight), static_cast<uint16_t*>(out), rows, eps);
}

}  // namespace norm

void rmsnorm(const void* x, void* residual, const void* weight, void* out, int64_t rows, float eps, hipStream_t s) {
  on_geometry<Qwen36MoeA3B, Qwen3627B, Qwen38FlashNext>(QUILLON_HERE, [&](auto g) {
    using G = decltype(g);
    if (residual) norm::launch_rowmajor<G, true>(x, residual, weight, out, rows, eps, s);
    else norm::launch_rowmajor<G, false>(x, nullptr, weight, out, rows, eps, s);
  });
}

void rmsnorm_shuffled(const void* x, void* residual, const void* weight, void* out, int64_t rows, float eps,
                      hipStream_t s) {
  on_geometry<Qwen36MoeA3B, Qwen3627B, Qwen38FlashNext>(QUILLON_HERE, [&](auto g) {
    using G = decltype(g);
    if (rows <= 0) return;
    if (residual) norm::launch_shuffled<G, true>(x, residual, weight, out, rows, eps, s);
    else norm::launch_shuffled<G, false>(x, nullptr, weight, out, rows, eps, s);
  });
}

}  // namespace quillon
