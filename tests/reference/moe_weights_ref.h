// Reference expert weight forms: gate-up interleaving, per-expert block
// panels and fp8 scale orders, from their address formulas.
#pragma once
#include <cstdint>
#include <cstring>
#include <vector>

namespace ref {

// Rows of n experts as the device orders them: gate-up row 2i is gate row i,
// 2i + 1 up row i; `row_bytes` per source row, I rows per expert and tensor.
inline std::vector<uint8_t> interleave_gate_up(const std::vector<uint8_t>& gate, const std::vector<uint8_t>& up,
                                               int64_t n, int64_t I, int64_t row_bytes) {
  std::vector<uint8_t> out((size_t)(n * 2 * I * row_bytes));
  for (int64_t e = 0; e < n; ++e)
    for (int64_t r = 0; r < 2 * I; ++r)
      std::memcpy(out.data() + (e * 2 * I + r) * row_bytes,
                  (r % 2 ? up : gate).data() + (e * I + r / 2) * row_bytes, (size_t)row_bytes);
  return out;
}
// The fused source of the same experts: each expert's I gate rows, then its up rows.
inline std::vector<uint8_t> fuse_gate_up(const std::vector<uint8_t>& gate, const std::vector<uint8_t>& up, int64_t n,
                                         int64_t I, int64_t row_bytes) {
  std::vector<uint8_t> out;
  for (int64_t e = 0; e < n; ++e) {
    out.insert(out.end(), gate.begin() + e * I * row_bytes, gate.begin() + (e + 1) * I * row_bytes);
    out.insert(out.end(), up.begin() + e * I * row_bytes, up.begin() + (e + 1) * I * row_bytes);
  }
  return out;
}

// n experts of R x K elements of `esz` bytes, rows in device order, into
// 128 x 64 panels: e * R * K + ((r / 128) * (K / 64) + c / 64) * 8192 +
// (r % 128) * 64 + c % 64 elements.
inline std::vector<uint8_t> expert_panels(const std::vector<uint8_t>& rows, int64_t n, int64_t R, int64_t K, int esz) {
  std::vector<uint8_t> out(rows.size());
  for (int64_t e = 0; e < n; ++e)
    for (int64_t r = 0; r < R; ++r)
      for (int64_t c = 0; c < K; ++c) {
        const int64_t el = e * R * K + ((r / 128) * (K / 64) + c / 64) * 8192 + (r % 128) * 64 + c % 64;
        std::memcpy(out.data() + el * esz, rows.data() + ((e * R + r) * K + c) * esz, (size_t)esz);
      }
  return out;
}

// fp8 scales, bf16 [n][nb][kb] per tensor. Gate-up: index ((j * 2nb + t) * 2 + p)
// holds block (t / 2, j) of gate (p 0) or up (p 1). Down: [kb][nb].
inline std::vector<uint16_t> gate_up_scales(const std::vector<uint16_t>& g, const std::vector<uint16_t>& u, int64_t n,
                                            int64_t nb, int64_t kb) {
  std::vector<uint16_t> out((size_t)(n * 4 * nb * kb));
  for (int64_t e = 0; e < n; ++e)
    for (int64_t j = 0; j < kb; ++j)
      for (int64_t t = 0; t < 2 * nb; ++t)
        for (int p = 0; p < 2; ++p)
          out[(size_t)(e * 4 * nb * kb + (j * 2 * nb + t) * 2 + p)] =
              (p ? u : g)[(size_t)(e * nb * kb + (t / 2) * kb + j)];
  return out;
}
inline std::vector<uint16_t> down_scales(const std::vector<uint16_t>& s, int64_t n, int64_t nb, int64_t kb) {
  std::vector<uint16_t> out(s.size());
  for (int64_t e = 0; e < n; ++e)
    for (int64_t i = 0; i < nb; ++i)
      for (int64_t j = 0; j < kb; ++j) out[(size_t)(e * nb * kb + j * nb + i)] = s[(size_t)(e * nb * kb + i * kb + j)];
  return out;
}

}  // namespace ref
