// Tile layouts of the dense matrix operands and the kernels that produce them.
// Every shuffle is a pure byte permutation (a loader may compute values on the
// way); writes are linear and the strided side is the read.
#pragma once
#include <hip/hip_runtime_api.h>
#include <stdint.h>

#include "../platform/device.h"
#include "../platform/launch.h"
#include "grouped_gemm_tiles.h"

namespace quillon::gemm_core {

// Compile-time tile of the prefill GEMM: BM x BN per workgroup, BK per K step,
// WAVES_M x WAVES_N waves, each owning (BM / WAVES_M) x (BN / WAVES_N) of C.
template <int BM_, int BN_, int BK_, int WAVES_M_, int WAVES_N_>
struct TileShape {
  static constexpr int BM = BM_, BN = BN_, BK = BK_, WAVES_M = WAVES_M_, WAVES_N = WAVES_N_;
  static constexpr int kWaves = WAVES_M * WAVES_N;
  static constexpr int kThreads = kWaves * dev::kWave;
  static constexpr int kWaveRows = BM / WAVES_M;
  static constexpr int kWaveCols = BN / WAVES_N;
  static_assert(BM % WAVES_M == 0 && BN % WAVES_N == 0, "waves tile the workgroup tile");
  // A prefill activation buffer holds whole BM-row tiles; pad rows copy row 0.
  static constexpr int64_t padded_rows(int64_t m) { return (m + BM - 1) / BM * BM; }
};
using PrefillTile = TileShape<256, 128, 32, 8, 2>;
static_assert(PrefillTile::kThreads == 512 && PrefillTile::kWaveRows == 32 && PrefillTile::kWaveCols == 64,
              "prefill workgroup: 16 waves, 32 x 64 of C each");

// ---- Byte addresses of the layouts -------------------------------------------------
// blk32: 32 x 32 bf16 blocks of 2048 bytes, row-major inside. Row-block-major
// (ORDER false) serves A, column-block-major (ORDER true) serves B.
inline constexpr int64_t kBlk32Bytes = 2048;
inline constexpr int64_t kBlk32Fp8Bytes = 1024;

QHD constexpr int64_t blk32_a_offset(int64_t r, int64_t c, int64_t C) {
  return ((r / 32) * (C / 32) + c / 32) * kBlk32Bytes + (r % 32) * 64 + (c % 32) * 2;
}
QHD constexpr int64_t blk32_b_offset(int64_t r, int64_t c, int64_t R) {
  return ((c / 32) * (R / 32) + r / 32) * kBlk32Bytes + (r % 32) * 64 + (c % 32) * 2;
}
template <bool ORDER>
QHD constexpr int64_t blk32_offset(int64_t r, int64_t c, int64_t R, int64_t C) {
  return ORDER ? blk32_b_offset(r, c, R) : blk32_a_offset(r, c, C);
}
// fp8 bytes: 32 x 32 byte blocks, column-block-major only.
QHD constexpr int64_t blk32_fp8_offset(int64_t r, int64_t c, int64_t R) {
  return ((c / 32) * (R / 32) + r / 32) * kBlk32Fp8Bytes + (r % 32) * 32 + (c % 32);
}
// Block panels (router weights): 128 x 64 bf16 panels of 16384 bytes,
// row-panel-major, row-major inside.
QHD constexpr int64_t block_panel_offset(int64_t r, int64_t c, int64_t K) {
  return ((r / 128) * (K / 64) + c / 64) * 16384 + (r % 128) * 128 + (c % 64) * 2;
}
// Gathered A (MoE prefill): tile slabs of T x H bf16, each cut into 64-column
// panels of T rows of 128 bytes.
QHD constexpr int64_t gathered_a_offset(int64_t tile, int64_t r, int64_t c, int64_t T, int64_t H) {
  return tile * T * H * 2 + (c / 64) * (T * 128) + r * 128 + (c % 64) * 2;
}

// ---- Loaders of shuffle_blk32_kernel -----------------------------------------------
// A loader is a by-value struct with `Chunk` (the CHUNK-byte vector it yields)
// and `load(row, col)`: the chunk of the element source at (row, col .. col +
// 7). Loaders that compute their elements plug in the same way.
struct DenseALoader {
  using Chunk = dev::u32x4;
  const uint16_t* src;
  uint32_t stride;  // elements
  QDEV Chunk load(uint32_t row, uint32_t col) const {
    return *reinterpret_cast<const dev::u32x4*>(src + (uint64_t)row * stride + col);
  }
};

struct Fp8ChunkLoader {
  using Chunk = dev::u32x2;
  const uint8_t* src;
  uint32_t stride;  // bytes
  QDEV Chunk load(uint32_t row, uint32_t col) const {
    return *reinterpret_cast<const dev::u32x2*>(src + (uint64_t)row * stride + col);
  }
};

// ---- Kernels -----------------------------------------------------------------------
// One thread moves one chunk; a 256-thread workgroup covers two blocks. The
// write position is linear in the thread id, the read position follows from it.
// `fast` is the block count along the fast dimension: block columns (C / 32)
// for row-block-major, block rows (R / 32) for column-block-major. Source rows
// at or past `real_rows` read row 0, so pad rows hold finite copies.
template <int BR, int BC, bool ORDER, class LOADER, int CHUNK>
__global__ __launch_bounds__(256) void shuffle_blk32_kernel(LOADER ld, void* dst, uint32_t fast, int64_t real_rows) {
  static_assert(BR == 32 && BC == 32, "blk32 blocks are 32 x 32");
  static_assert(sizeof(typename LOADER::Chunk) == CHUNK, "loader chunk width");
  constexpr uint32_t kRowChunks = 4;  // 32 bf16 or 32 fp8 elements in 16- or 8-byte chunks
  static_assert(BC * (CHUNK == 16 ? 2 : 1) == kRowChunks * CHUNK, "four chunks make a block row");
  const uint32_t g = blockIdx.x * 256u + threadIdx.x;
  const uint32_t b = g / (BR * kRowChunks);
  const uint32_t q = b / fast, p = b % fast;
  const uint32_t block_row = ORDER ? p : q;
  const uint32_t block_col = ORDER ? q : p;
  uint32_t row = block_row * BR + (g / kRowChunks) % BR;
  if ((int64_t)row >= real_rows) row = 0;
  const uint32_t col = block_col * BC + (g % kRowChunks) * 8;
  const typename LOADER::Chunk v = ld.load(row, col);
  *reinterpret_cast<typename LOADER::Chunk*>(static_cast<unsigned char*>(dst) + (uint64_t)g * CHUNK) = v;
}

// Workgroup b moves panel (b / (K / PC), b % (K / PC)); each thread four
// 16-byte chunks, linear in the destination panel.
template <int R, int K, int PR, int PC>
__global__ __launch_bounds__(256) void shuffle_block_panel_kernel(const uint16_t* src, uint16_t* dst) {
  static_assert(PR == 128 && PC == 64, "block panels are 128 x 64");
  static_assert(R % PR == 0 && K % PC == 0, "whole panels");
  constexpr int kChunksPerRow = PC / 8;
  const uint32_t b = blockIdx.x;
  const uint32_t pr = b / (K / PC), pc = b % (K / PC);
  const uint16_t* s = src + (uint64_t)pr * PR * K + pc * PC;
  unsigned char* d = reinterpret_cast<unsigned char*>(dst) + (uint64_t)b * (PR * PC * 2);
  for (int i = 0; i < PR * kChunksPerRow / 256; ++i) {
    const uint32_t c = threadIdx.x + 256u * i;
    const dev::u32x4 v = *reinterpret_cast<const dev::u32x4*>(s + (c / kChunksPerRow) * K + (c % kChunksPerRow) * 8);
    *reinterpret_cast<dev::u32x4*>(d + c * 16) = v;
  }
}

// Staged LDS row chunk: odd rows swap the two halves of each 256-byte bank
// span, so the panel-wise read-out of four rows per wave is two-way, not four.
template <int H>
QDEV uint32_t gathered_lds_chunk(uint32_t r, uint32_t k) {
  return r * (H / 8) + (k ^ ((r & 1u) << 3));
}

// Gathered A. Workgroup (x, y) stages rows 8x .. 8x + 7 of tile y in LDS and
// writes them into the tile's slab, panel by panel. GATHERED: rows come
// through `sorted_ids`, tiles outside the pass and shared-expert tiles already
// present in hidden_shuffled are skipped. Otherwise row r of tile y is source
// row y * T + r (the record holds only M). Source reads are bounded at M rows,
// so padding rows and ids past the end come in as zeros.
// GATED (ungathered only): waves 0..7 also compute the shared-expert gate of
// their row, sigmoid(hidden . gate_w), into gate_out[row * gate_stride], while
// the other 256 threads write the slab.
template <int H, bool GATHERED, int T, bool GATED>
__global__ __launch_bounds__(512) void shuffle_gathered_a_kernel(const uint16_t* src, uint16_t* dst,
                                                                 GroupedGemmTiles tiles, const uint16_t* gate_w,
                                                                 float* gate_out, int32_t gate_stride) {
  static_assert(T == 64 || T == 128, "gathered tiles are 64 or 128 rows");
  static_assert(H % 512 == 0, "the staging loop covers whole rows");
  static_assert(!(GATED && GATHERED), "the gate rides on the ungathered hidden shuffle");
  constexpr uint32_t kRowChunks = H / 8;  // 16-byte chunks per row
  constexpr uint32_t kChunks = 8 * kRowChunks;
  __shared__ dev::u32x4 rows[kChunks];

  const int64_t tile = blockIdx.y;
  const uint32_t group = blockIdx.x;
  const uint32_t t = threadIdx.x;
  if constexpr (GATHERED) {
    if (!tile_in_pass(tiles, tile)) return;
    if (tiles.hidden_shuffled != nullptr && tiles.tile_expert[tile] == tiles.shared_expert_id) return;
  }
  const uint32_t bytes = (uint32_t)(tiles.M * H * 2);
  const dev::BufferRes res = dev::make_buffer(src, bytes);
  const int64_t first_row = tile * T + group * 8;
  for (uint32_t i = 0; i < kChunks / 512; ++i) {
    const uint32_t c = t + 512u * i;
    const uint32_t r = c / kRowChunks, k = c % kRowChunks;
    uint64_t id;
    if constexpr (GATHERED) id = sorted_row_token(tiles.sorted_ids[first_row + r]);
    else id = (uint64_t)(first_row + r);
    // An id past the end points at the record end, so the wrap of a 32-bit
    // offset cannot land back inside the source.
    const uint64_t base = id * (H * 2);
    const uint32_t off = base < bytes ? (uint32_t)base : bytes;
    rows[gathered_lds_chunk<H>(r, k)] = dev::buffer_load16(res, off + k * 16);
  }
  __syncthreads();

  constexpr uint32_t kWriters = GATED ? 256 : 512;
  if constexpr (GATED) {
    if (t < 256) {
      const uint32_t w = t / 32, l = t % 32;
      float acc = 0.0f;
      for (uint32_t i = 0; i < H / 256; ++i) {
        const uint32_t k = l + 32 * i;
        const dev::u32x4 h = rows[gathered_lds_chunk<H>(w, k)];
        const dev::u32x4 g = *reinterpret_cast<const dev::u32x4*>(gate_w + k * 8);
        for (int j = 0; j < 4; ++j) {
          acc = __builtin_fmaf(dev::u2f(h[j] << 16), dev::u2f(g[j] << 16), acc);
          acc = __builtin_fmaf(dev::u2f(h[j] & 0xffff0000u), dev::u2f(g[j] & 0xffff0000u), acc);
        }
      }
      for (int m = 16; m >= 1; m >>= 1) acc += dev::shfl_xor_f(acc, m);
      const int64_t row = first_row + w;
      if (l == 0 && row < tiles.M) {
        const float e = dev::exp2(-acc * 1.4426950408889634f);
        gate_out[row * gate_stride] = 1.0f / (1.0f + e);
      }
      return;
    }
  }
  const uint32_t wt = GATED ? t - 256 : t;
  unsigned char* slab = reinterpret_cast<unsigned char*>(dst) + (uint64_t)tile * (T * H * 2);
  for (uint32_t i = 0; i < kChunks / kWriters; ++i) {
    const uint32_t c = wt + kWriters * i;
    const uint32_t panel = c / 64, r = (c % 64) / 8, piece = c % 8;
    *reinterpret_cast<dev::u32x4*>(slab + panel * (T * 128) + (group * 8 + r) * 128 + piece * 16) =
        rows[gathered_lds_chunk<H>(r, panel * 8 + piece)];
  }
}

}  // namespace quillon::gemm_core

// ---- Host entries ----------------------------------------------------------------------
namespace quillon {

// Aborts with the blk32 message unless [R, C] cuts into an even number of
// whole 32 x 32 blocks (a workgroup covers two).
void check_blk32_shape(int64_t R, int64_t C);

// Any loader into blk32 order ORDER: R x C (padded) with `real_rows` real rows.
// The grid is R * C / 2048 for both chunk widths: 256 chunks of 16 bytes make
// two bf16 blocks, 256 chunks of 8 bytes two fp8 blocks.
template <bool ORDER, class LOADER>
inline void shuffle_blk32(LOADER ld, void* dst, int64_t R, int64_t C, int64_t real_rows, hipStream_t s) {
  check_blk32_shape(R, C);
  if (R == 0 || C == 0) return;
  constexpr int kChunk = (int)sizeof(typename LOADER::Chunk);
  const uint32_t fast = (uint32_t)(ORDER ? R / 32 : C / 32);
  launch(&gemm_core::shuffle_blk32_kernel<32, 32, ORDER, LOADER, kChunk>, dim3((unsigned)(R * C / 2048)), dim3(256),
         0, s, ld, dst, fast, real_rows);
}

// Activations, row-block-major: R = padded rows, rows at or past `real_rows`
// copy row 0.
void shuffle_a_blk32(const void* src, int64_t row_stride, void* dst, int64_t R, int64_t C, hipStream_t s,
                     int64_t real_rows);
// bf16 weights [N, K], column-block-major.
void shuffle_b_blk32(const void* src, int64_t row_stride, void* dst, int64_t N, int64_t K, hipStream_t s);
// fp8 weights [N, K] bytes, column-block-major, row stride in bytes.
void shuffle_b_blk32_fp8(const void* src, int64_t row_stride, void* dst, int64_t N, int64_t K, hipStream_t s);

// Block panels of a dense bf16 [R, K] matrix (row stride K). Compiled for
// <256, 2048>, <256, 4096>, <512, 2560>.
template <int R, int K>
void shuffle_block_panel(const void* src, void* dst, hipStream_t s);

// Gathered A of `tiles` (grid T / 8 by max tiles) from bf16 [M, H] rows.
void shuffle_gathered_a(const void* src, void* dst, const gemm_core::GroupedGemmTiles& tiles, int64_t H, int T,
                        hipStream_t s);
// Ungathered form: rows of src in order, ceil(M / T) tiles. With gate_w, also
// the gate of each row into gate_out[row * gate_stride] (H 2048 and 2560).
void shuffle_hidden_tiles(const void* src, void* dst, int64_t M, int64_t H, int T, const void* gate_w,
                          float* gate_out, int32_t gate_stride, hipStream_t s);

}  // namespace quillon
