// Reference MoE expert stage: every routed (token, slot) runs its expert
// densely in double, SwiGLU (clamped where a limit is given) rounded to bf16,
// the down row rounded to bf16, then the slot-ordered fp32 reduction. Also the
// workspace table, from its rows.
#pragma once
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <map>
#include <vector>

#include "moe_ref.h"

namespace ref {

// Checkpoint-form expert matrices as values: gate and up [I, H], down [H, I].
struct ExpertMats {
  std::vector<float> gate, up, down;
};

struct MoeOut {
  std::vector<uint16_t> out;  // bf16 [M, H]
  std::vector<double> tol;    // per element
};

// ids/w [M, S] are the routing table; experts maps an id to its matrices.
inline MoeOut fused_moe(const std::vector<float>& hidden, const std::vector<int32_t>& ids,
                        const std::vector<float>& w, const std::map<int32_t, ExpertMats>& experts, int64_t M,
                        int64_t S, int64_t H, int64_t I, double limit) {
  MoeOut r{std::vector<uint16_t>((size_t)(M * H)), std::vector<double>((size_t)(M * H))};
  std::vector<float> inter((size_t)I), row((size_t)H);
  std::vector<double> acc((size_t)H), mag((size_t)H), flip((size_t)H);
  for (int64_t t = 0; t < M; ++t) {
    const float* x = &hidden[(size_t)(t * H)];
    std::fill(acc.begin(), acc.end(), 0.0);
    std::fill(mag.begin(), mag.end(), 0.0);
    std::fill(flip.begin(), flip.end(), 0.0);
    std::vector<float> fma_acc((size_t)H, 0.0f);
    for (int64_t s = 0; s < S; ++s) {
      const ExpertMats& e = experts.at(ids[(size_t)(t * S + s)]);
      for (int64_t i = 0; i < I; ++i) {
        double g = 0.0, u = 0.0;
        for (int64_t c = 0; c < H; ++c) {
          g += (double)x[c] * e.gate[(size_t)(i * H + c)];
          u += (double)x[c] * e.up[(size_t)(i * H + c)];
        }
        if (limit > 0.0) {
          g = std::min(g, limit);
          u = std::max(std::min(u, limit), -limit);
        }
        inter[(size_t)i] = bf16_value(bf16_rne_bits((float)(g / (1.0 + std::exp(-g)) * u)));
      }
      const double ws = w[(size_t)(t * S + s)];
      for (int64_t c = 0; c < H; ++c) {
        double d = 0.0, big = 0.0;
        for (int64_t i = 0; i < I; ++i) {
          const double p = (double)inter[(size_t)i] * e.down[(size_t)(c * I + i)];
          d += p;
          big = std::max(big, std::fabs(p));
        }
        row[(size_t)c] = bf16_value(bf16_rne_bits((float)d));
        fma_acc[(size_t)c] = std::fma((float)ws, row[(size_t)c], fma_acc[(size_t)c]);
        mag[(size_t)c] += std::fabs(ws * row[(size_t)c]);
        flip[(size_t)c] += std::fabs(ws) * big;
      }
    }
    // Bound: bf16 steps of the result and of each weighted row, plus one
    // SwiGLU rounding step (2^-7 of its largest down term) per row.
    for (int64_t c = 0; c < H; ++c) {
      r.out[(size_t)(t * H + c)] = bf16_rne_bits(fma_acc[(size_t)c]);
      r.tol[(size_t)(t * H + c)] =
          std::ldexp(std::fabs((double)fma_acc[(size_t)c]) + mag[(size_t)c], -6) + std::ldexp(flip[(size_t)c], -7);
    }
  }
  return r;
}

// The workspace total at M: 13 carved sizes, 256-byte aligned where the
// table says so. T and shuffled are the variant at M, G the unit count.
inline int64_t moe_workspace_total(int64_t M, int64_t T, bool shuffled, int64_t G, int64_t H, int64_t I, int64_t E,
                                   int64_t S) {
  auto al = [](int64_t x) { return (x + 255) / 256 * 256; };
  const int64_t E_tot = E + 1, tiles = M > 0 ? moe_max_tiles(M, S, T, E_tot) : 0, rows = tiles * T;
  const int64_t shuffle = shuffled && M > 0 ? (M + T - 1) / T * T * H * 2 : 0;
  return al(M * S * 4) * 3 + al(rows * 4) * 2 + al(tiles * 4) + 256 + al((G + 1) * E_tot * 4) + al(M * E * 4) +
         al(shuffle) + T * tiles * H * 2 + rows * I * 2 + rows * H * 2;
}

}  // namespace ref
