// The record that ties the MoE token sort to every grouped kernel: where the
// sorted rows are, which expert owns each tile, how many tiles are live.
#pragma once
#include <stddef.h>
#include <stdint.h>

#include "../platform/device.h"

namespace quillon::gemm_core {

// Passed by value; 64 bytes with fixed offsets, filled on the host.
struct GroupedGemmTiles {
  const int32_t* sorted_ids;    // (slot << 24) | token per sorted row; null in the ungathered form
  const int32_t* tile_expert;   // expert id of each tile
  const int32_t* tile_counts;   // [0] tiles in use, [1] routed tiles
  int64_t max_tiles;            // the grid's tile dimension
  int64_t M;                    // token rows
  int32_t shared_expert_id;     // E, or -1 when no shuffled hidden is supplied
  int32_t reserved;
  const void* hidden_shuffled;  // may be null
  int32_t pass;                 // 0 all tiles, 1 routed only, 2 shared only
  int32_t expert_base;          // subtracted from a tile's expert id to index its weights
};
static_assert(sizeof(GroupedGemmTiles) == 64, "GroupedGemmTiles is a 64-byte record");
static_assert(offsetof(GroupedGemmTiles, max_tiles) == 24 && offsetof(GroupedGemmTiles, M) == 32 &&
                  offsetof(GroupedGemmTiles, shared_expert_id) == 40 &&
                  offsetof(GroupedGemmTiles, hidden_shuffled) == 48 && offsetof(GroupedGemmTiles, pass) == 56 &&
                  offsetof(GroupedGemmTiles, expert_base) == 60,
              "GroupedGemmTiles field offsets");

// Packed sorted-row value: bits 0..23 the token, bits 24..31 the slot.
QHD uint32_t sorted_row_token(int32_t packed) { return (uint32_t)packed & 0xffffffu; }

// The grid is sized by max tiles; a tile outside the launch's pass has no work.
QDEV bool tile_in_pass(const GroupedGemmTiles& t, int64_t tile) {
  const int64_t lo = t.pass == 2 ? t.tile_counts[1] : 0;
  const int64_t hi = t.pass == 1 ? t.tile_counts[1] : t.tile_counts[0];
  return tile >= lo && tile < hi;
}

}  // namespace quillon::gemm_core
