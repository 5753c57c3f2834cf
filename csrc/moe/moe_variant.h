// The MoE variant at a row count: the tile height T of the token sort and the
// grouped products, and whether hidden rows go through the gathered-A shuffle.
// Read by the router, the sort and the expert stage alike, so they agree.
#pragma once
#include <stdint.h>

#include "quillon/dispatch.h"

namespace quillon {

struct MoeVariant {
  int32_t T;
  bool shuffled;
};

// Row blocks of the shuffled (three-stage, gathered) forms.
using MoeRowBlock = ValueList<64, 128>;

// The table (M up to 768: 16 unshuffled; up to 2048: 64 shuffled; above: 128
// shuffled), unless a variant or a (T, flag) pair is forced.
MoeVariant moe_variant_at(int64_t M);
// Process-wide forcing: index 0..2 picks a table row, anything above returns
// to the table; moe_dispatch_force with T = 0 does the same.
void moe_variant_force(int32_t index);
void moe_dispatch_force(int32_t T, bool shuffled);

// Sort capacity at (M, S, T) over E_tot experts: every expert wastes less
// than one tile, and no more tiles than rows can be live.
constexpr int64_t moe_max_tiles(int64_t M, int64_t S, int64_t T, int64_t E_tot) {
  const int64_t rows = M * S, padded = (rows + T - 1) / T + E_tot;
  return rows < padded ? rows : padded;
}

}  // namespace quillon
