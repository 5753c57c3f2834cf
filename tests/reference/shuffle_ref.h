// Reference tile layouts: each output element placed by the closed-form byte
// address of its layout, from plain row-major sources.
#pragma once
#include <cstdint>
#include <functional>
#include <vector>

namespace ref {

// bf16 [R, C] (R padded) into blk32; row r >= real_rows reads source row 0.
// col_major: column-block-major (weights), else row-block-major (activations).
inline std::vector<uint16_t> blk32(const std::vector<uint16_t>& src, int64_t stride, int64_t R, int64_t C,
                                   int64_t real_rows, bool col_major) {
  std::vector<uint16_t> out((size_t)(R * C));
  for (int64_t r = 0; r < R; ++r) {
    const int64_t sr = r < real_rows ? r : 0;
    for (int64_t c = 0; c < C; ++c) {
      const int64_t block = col_major ? (c / 32) * (R / 32) + r / 32 : (r / 32) * (C / 32) + c / 32;
      const int64_t byte = block * 2048 + (r % 32) * 64 + (c % 32) * 2;
      out[(size_t)(byte / 2)] = src[(size_t)(sr * stride + c)];
    }
  }
  return out;
}

// fp8 bytes [R, C], column-block-major blocks of 32 x 32 bytes.
inline std::vector<uint8_t> blk32_fp8(const std::vector<uint8_t>& src, int64_t stride, int64_t R, int64_t C) {
  std::vector<uint8_t> out((size_t)(R * C));
  for (int64_t r = 0; r < R; ++r)
    for (int64_t c = 0; c < C; ++c)
      out[(size_t)(((c / 32) * (R / 32) + r / 32) * 1024 + (r % 32) * 32 + (c % 32))] = src[(size_t)(r * stride + c)];
  return out;
}

// bf16 [R, K] (stride K) into 128 x 64 panels, row-panel-major.
inline std::vector<uint16_t> block_panel(const std::vector<uint16_t>& src, int64_t R, int64_t K) {
  std::vector<uint16_t> out((size_t)(R * K));
  for (int64_t r = 0; r < R; ++r)
    for (int64_t c = 0; c < K; ++c) {
      const int64_t byte = ((r / 128) * (K / 64) + c / 64) * 16384 + (r % 128) * 128 + (c % 64) * 2;
      out[(size_t)(byte / 2)] = src[(size_t)(r * K + c)];
    }
  return out;
}

// Gathered A over `tiles` slabs of T x H from bf16 [M, H]. row_of(tile, r)
// gives the source row (any value; M and above read as zeros); a tile with
// runs(tile) false keeps the `keep` bits.
inline std::vector<uint16_t> gathered_a(const std::vector<uint16_t>& src, int64_t M, int64_t H, int64_t T,
                                        int64_t tiles, const std::function<int64_t(int64_t, int64_t)>& row_of,
                                        const std::function<bool(int64_t)>& runs, uint16_t keep = 0xFFFF) {
  std::vector<uint16_t> out((size_t)(tiles * T * H), keep);
  for (int64_t t = 0; t < tiles; ++t) {
    if (!runs(t)) continue;
    for (int64_t r = 0; r < T; ++r) {
      const int64_t sr = row_of(t, r);
      for (int64_t c = 0; c < H; ++c) {
        const int64_t byte = t * T * H * 2 + (c / 64) * (T * 128) + r * 128 + (c % 64) * 2;
        out[(size_t)(byte / 2)] = sr >= 0 && sr < M ? src[(size_t)(sr * H + c)] : 0;
      }
    }
  }
  return out;
}

}  // namespace ref
