// What a member of the GEMM family is made of. A Config bundles, at compile
// time: its Params record (the kernel's one by-value argument), the shape
// (prefill tile or decode row tile), the B loader, K (compile-time or not),
// and the epilogue with its output type. gemm_kernel.h runs any Config.
//
// A Config provides:
//   kPrefill         true: 256 x 128 LDS tile (Tile, BLoader); false: decode
//                    row tile kRowTile of 16 or 32 (BStream, kDeep, kSplits)
//   Params           head A, B, C, M, N, K, then the family's own slots
//   Epilogue, Out    how a value of C is stored, and its type
//   kK               compile-time K, or 0 for the K of the Params
//   kThreads         workgroup size
//   kWavesPerSimd    the occupancy its register budget is planned for
//   column_tile(p, x)  the N tile of grid column x (a shifted arm subtracts
//                    its first tile)
#pragma once
#include <stdint.h>

#include <type_traits>

#include "gemm_epilogue.h"
#include "gemm_loaders.h"
#include "gemm_shuffle.h"
#include "gemm_w_kquant.h"

namespace quillon::gemm_core {

// ---- Params records ------------------------------------------------------------------
// The head every record starts with. B is the weight operand of its
// descriptor: a pointer (bf16), bytes and scales (fp8), or the plane pair.
template <class BOp>
struct GemmParams {
  using Operand = BOp;
  const uint16_t* A;
  BOp B;
  void* C;
  int64_t M;
  int64_t N;
  int64_t K;
};
// Split forms: fp32 partials of every split.
template <class BOp>
struct GemmSplitParams : GemmParams<BOp> {
  float* workspace;
};
// Product into a blk32 activation buffer: its width in 32-column blocks and
// the first destination column.
template <class BOp>
struct GemmBlk32Params : GemmParams<BOp> {
  int64_t dst_blocks;
  int64_t dst_col;
};
// One arm of a segmented launch: blocks from `seam` on are this arm's.
template <class BOp>
struct GemmSegParams : GemmParams<BOp> {
  int32_t seam;
  int32_t seam_hi;  // zero
};
// Projections: two slots, zero unless a fused launch gives them a meaning
// (first column tile of a shifted arm; output row stride of a grouped record).
template <class BOp>
struct ProjParams : GemmParams<BOp> {
  int64_t slot0;
  int64_t slot1;
};
// Decode split record: the workspace takes C's place and the final C follows.
template <class BOp>
struct ProjSplitParams {
  using Operand = BOp;
  const uint16_t* A;
  BOp B;
  float* workspace;
  void* C;
  int64_t M;
  int64_t N;
  int64_t K;
  int64_t zero;
};

// ---- Shapes ----------------------------------------------------------------------------
struct ProjPrefillLds {};
template <int MT>
struct ProjDecodeStream {
  static_assert(MT == 16 || MT == 32, "decode row tiles are 16 or 32 rows");
  static constexpr int kRowTile = MT;
};
template <int MT>
struct ProjDecodePairStream : ProjDecodeStream<MT> {};
template <int MT>
struct ProjDecodeGroupedStream : ProjDecodeStream<MT> {};

// ---- Config bases ----------------------------------------------------------------------
template <class BLoader_, class Params_, class Epilogue_, int64_t K_ = 0>
struct PrefillConfig {
  static constexpr bool kPrefill = true;
  using Tile = PrefillTile;
  static constexpr int kRowTile = Tile::BM;
  using BLoader = BLoader_;
  using Params = Params_;
  using Epilogue = Epilogue_;
  using Out = typename Epilogue::Out;
  static constexpr int64_t kK = K_;
  static constexpr int kThreads = Tile::kThreads;
  // The tile's LDS lets two workgroups share a 128 KiB processor: 32 waves on
  // four SIMDs, up to 192 registers each.
  static constexpr int kWavesPerSimd = 8;
  static_assert(K_ % 32 == 0, "K in whole steps");
  // A record of a compile-time K need not carry one.
  static QDEV int64_t k_of(const Params& p) {
    if constexpr (K_ != 0) return K_;
    else return p.K;
  }
};

template <int MT, class BStream_, class Params_, class Epilogue_, int64_t K_, bool DEEP, int S = 1>
struct DecodeConfig {
  static constexpr bool kPrefill = false;
  static constexpr int kRowTile = MT;
  using BStream = BStream_;
  using Params = Params_;
  using Epilogue = Epilogue_;
  using Out = typename Epilogue::Out;
  static constexpr int64_t kK = K_;
  static constexpr bool kDeep = DEEP;
  static constexpr int kSplits = S;
  static constexpr int kThreads = MT == 16 ? 256 : 512;
  // Decode streams weights: registers stay within 96 so 16 waves fit a SIMD.
  static constexpr int kWavesPerSimd = 16;
  static constexpr int64_t kSplitK = K_ / S;
  static_assert(MT == 16 || MT == 32, "decode row tiles are 16 or 32 rows");
  static_assert(K_ > 0 && K_ % S == 0, "decode K is a compile-time constant that the splits divide");
  static_assert(kSplitK % 64 == 0, "the plain loop runs two units per trip");
  static_assert(!DEEP || kSplitK % 128 == 0, "the deep loop covers 128 K per trip");
  static_assert(!DEEP || BStream::kScaleBlock == 0, "block-scaled weights run the plain loop");
  static_assert(BStream::kScaleBlock == 0 || kSplitK % BStream::kScaleBlock == 0, "whole scale blocks per split");
  static QDEV uint32_t column_tile(const Params&, uint32_t x) { return x; }
};

// ---- Weight descriptors to loaders ---------------------------------------------------
template <class W>
constexpr int weight_kind() {
  if constexpr (W::kquant) return 2;
  else if constexpr (std::is_base_of_v<WDenseFp8, W>) return 1;
  else return 0;
}
template <class W, int64_t N_FIXED, int KIND = weight_kind<W>()>
struct WeightLoaders;
template <class W, int64_t N_FIXED>
struct WeightLoaders<W, N_FIXED, 0> {
  static_assert(std::is_base_of_v<WDenseBf16, W>, "a bf16 descriptor");
  using Prefill = BBlk32DenseLdsRT<PrefillTile>;
  using Decode = BStreamBf16<N_FIXED>;
};
template <class W, int64_t N_FIXED>
struct WeightLoaders<W, N_FIXED, 1> {
  using Prefill = BFp8Blk32Lds<PrefillTile, N_FIXED>;
  using Decode = BStreamFp8<N_FIXED>;
};
template <class W, int64_t N_FIXED>
struct WeightLoaders<W, N_FIXED, 2> {
  using Prefill = BKQuantBlk32Lds<PrefillTile, W::format>;
  using Decode = BStreamKQuant<W::format>;
};

template <class Shape>
constexpr int row_tile_of() {
  if constexpr (std::is_same_v<Shape, ProjPrefillLds>) return 16;  // unused
  else return Shape::kRowTile;
}

// A fixed-shape projection: weight descriptor W, N at compile time for fp8
// (0 otherwise), K, the shape, and the deep form of the decode loop.
template <class W, int64_t N_FIXED, int64_t K, class Shape, bool DEEP>
struct ProjConfigFor
    : std::conditional_t<std::is_same_v<Shape, ProjPrefillLds>,
                         PrefillConfig<typename WeightLoaders<W, N_FIXED>::Prefill, ProjParams<typename W::Operand>,
                                       EpilogueRowMajor<bf16>, K>,
                         DecodeConfig<row_tile_of<Shape>(), typename WeightLoaders<W, N_FIXED>::Decode,
                                      ProjParams<typename W::Operand>, EpilogueRowMajor<bf16>, K, DEEP>> {
  using Weight = W;
  using ShapeTag = Shape;
  static constexpr int64_t kNFixed = N_FIXED;
};

// The decode split form: S splits of K / S, partials to the workspace. Block-
// scaled weights keep the plain loop, every other weight runs deep.
template <class W, int64_t N_FIXED, int64_t K, int S, int MT>
struct ProjSplitKConfigFor
    : DecodeConfig<MT, typename WeightLoaders<W, N_FIXED>::Decode, ProjSplitParams<typename W::Operand>,
                   EpilogueRowMajor<bf16>, K, weight_kind<W>() != 1, S> {
  using Weight = W;
  static constexpr int64_t kNFixed = N_FIXED;
};

// The split arm of a pair or triple: T column tiles of W, S splits of K,
// partials to the workspace. Its record is a decode split record.
template <class W, int64_t K, int S, int MT, int T>
struct ProjPairSplitKConfig
    : DecodeConfig<MT, typename WeightLoaders<W, 0>::Decode, ProjSplitParams<typename W::Operand>,
                   EpilogueRowMajor<bf16>, K, true, S> {
  static_assert(W::split_tiles == T, "the arm's tile count is its descriptor's");
  using Weight = W;
  static constexpr int kTiles = T;
};

// Eight independent products of one grouped launch, passed by value.
template <class Params, int G = 8>
struct ProjGroupedArgs {
  Params group[G];
};

}  // namespace quillon::gemm_core
