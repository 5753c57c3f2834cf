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
// The variant table: count, names ("auto" past the end).
int32_t moe_variant_count();
const char* moe_variant_name(int32_t index);

// Largest M of the narrow kernels per weight kind (0 fp8, 1 k-quant, 2
// low-bit), 4 at load; and whether the merged low-bit launch is barred.
enum class MoeNarrow { Fp8, KQuant, LowBit };
int32_t moe_narrow_max_m(MoeNarrow kind);
void moe_narrow_force_max_m(MoeNarrow kind, int32_t max_m);
bool moe_lowbit_split_forced();
void moe_lowbit_force_split(int32_t flag);

// Sort capacity at (M, S, T) over E_tot experts: every expert wastes less
// than one tile, and no more tiles than rows can be live.
constexpr int64_t moe_max_tiles(int64_t M, int64_t S, int64_t T, int64_t E_tot) {
  const int64_t rows = M * S, padded = (rows + T - 1) / T + E_tot;
  return rows < padded ? rows : padded;
}

}  // namespace quillon
