// Host entries of the dense shuffles: shape checks, variant choice, launch.
#include "gemm_shuffle.h"

#include "../device/geometry.h"
#include "../platform/fatal.h"
#include "quillon/dispatch.h"

namespace quillon {

using gemm_core::DenseALoader;
using gemm_core::Fp8ChunkLoader;
using gemm_core::GroupedGemmTiles;

void check_blk32_shape(int64_t R, int64_t C) {
  const bool whole = R >= 0 && C >= 0 && R % 32 == 0 && C % 32 == 0;
  if (!whole || (R / 32) * (C / 32) % 2 != 0)
    QUILLON_FATAL("blk32 shuffle needs [%lld, %lld] to divide into whole blocks", (long long)R, (long long)C);
}

void shuffle_a_blk32(const void* src, int64_t row_stride, void* dst, int64_t R, int64_t C, hipStream_t s,
                     int64_t real_rows) {
  shuffle_blk32<false>(DenseALoader{static_cast<const uint16_t*>(src), (uint32_t)row_stride}, dst, R, C, real_rows, s);
}

void shuffle_b_blk32(const void* src, int64_t row_stride, void* dst, int64_t N, int64_t K, hipStream_t s) {
  shuffle_blk32<true>(DenseALoader{static_cast<const uint16_t*>(src), (uint32_t)row_stride}, dst, N, K, N, s);
}

void shuffle_b_blk32_fp8(const void* src, int64_t row_stride, void* dst, int64_t N, int64_t K, hipStream_t s) {
  shuffle_blk32<true>(Fp8ChunkLoader{static_cast<const uint8_t*>(src), (uint32_t)row_stride}, dst, N, K, N, s);
}

template <int R, int K>
void shuffle_block_panel(const void* src, void* dst, hipStream_t s) {
  launch(&gemm_core::shuffle_block_panel_kernel<R, K, 128, 64>, dim3((R / 128) * (K / 64)), dim3(256), 0, s,
         static_cast<const uint16_t*>(src), static_cast<uint16_t*>(dst));
}
template void shuffle_block_panel<256, 2048>(const void*, void*, hipStream_t);
template void shuffle_block_panel<256, 4096>(const void*, void*, hipStream_t);
template void shuffle_block_panel<512, 2560>(const void*, void*, hipStream_t);

namespace {

using GatheredWidths = ValueList<2048, 2560, 4096>;
using GatheredTiles = ValueList<64, 128>;

// Calls f with H and T as compile-time constants from the compiled lists.
template <class F>
void on_gathered_shape(int64_t H, int T, F&& f) {
  dispatch_value<GatheredWidths>(QUILLON_HERE, H, [&](auto h) {
    dispatch_value<GatheredTiles>(QUILLON_HERE, T, [&](auto t) { f(h, t); });
  });
}

}  // namespace

void shuffle_gathered_a(const void* src, void* dst, const GroupedGemmTiles& tiles, int64_t H, int T,
                        hipStream_t s) {
  on_gathered_shape(H, T, [&](auto h, auto t) {
    constexpr int kH = decltype(h)::value, kT = decltype(t)::value;
    if (tiles.max_tiles <= 0) return;
    launch(&gemm_core::shuffle_gathered_a_kernel<kH, true, kT, false>, dim3(kT / 8, (unsigned)tiles.max_tiles),
           dim3(512), 0, s, static_cast<const uint16_t*>(src), static_cast<uint16_t*>(dst), tiles,
           static_cast<const uint16_t*>(nullptr), static_cast<float*>(nullptr), int32_t(0));
  });
}

void shuffle_hidden_tiles(const void* src, void* dst, int64_t M, int64_t H, int T, const void* gate_w,
                          float* gate_out, int32_t gate_stride, hipStream_t s) {
  on_gathered_shape(H, T, [&](auto h, auto t) {
    constexpr int kH = decltype(h)::value, kT = decltype(t)::value;
    if (M <= 0) return;
    GroupedGemmTiles tiles{};
    tiles.M = M;
    const dim3 grid(kT / 8, (unsigned)((M + kT - 1) / kT));
    const auto* sp = static_cast<const uint16_t*>(src);
    auto* dp = static_cast<uint16_t*>(dst);
    const auto* gp = static_cast<const uint16_t*>(gate_w);
    if (gate_w == nullptr) {
      launch(&gemm_core::shuffle_gathered_a_kernel<kH, false, kT, false>, grid, dim3(512), 0, s, sp, dp, tiles, gp,
             gate_out, gate_stride);
    } else if constexpr (kH == 2048 || kH == 2560) {
      launch(&gemm_core::shuffle_gathered_a_kernel<kH, false, kT, true>, grid, dim3(512), 0, s, sp, dp, tiles, gp,
             gate_out, gate_stride);
    } else {
      // The gate rides only on the widths whose router has a shared-expert gate row.
      QUILLON_FATAL("no compiled variant for %d", kH);
    }
  });
}

}  // namespace quillon
