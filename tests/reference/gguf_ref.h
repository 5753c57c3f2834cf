// Reference GGUF block decoding and weight planes, written from the block
// layouts of data/gguf/FORMATS.md and the library's dequantisation rule:
// a = f32(d) * f32(scale), b the offset term, w = fma(level, a, b), bf16 by
// adding 0x8000. Plain per-weight formulas, no word tricks, no library code.
#pragma once
#include "ref_bits.h"
#include <cmath>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace ref {

inline float f16(uint16_t h) {
  const int s = h >> 15, e = (h >> 10) & 31, m = h & 1023;
  float v;
  if (e == 0) v = std::ldexp((float)m, -24);
  else if (e == 31) v = m ? NAN : INFINITY;
  else v = std::ldexp((float)(1024 + m), e - 25);
  return s ? -v : v;
}
inline uint16_t round_dequant(float w) { return (uint16_t)((to_bits(w) + 0x8000u) >> 16); }
inline float bf16f(uint16_t h) { return widen(h); }

// ---- k-quants ----------------------------------------------------------------------
struct KFormat {
  int id, block_weights, block_bytes, bits, meta_tile;
};
inline KFormat kformat(int id) {
  switch (id) {
    case 2: return {2, 256, 84, 2, 640};
    case 3: return {3, 256, 110, 3, 576};
    case 4: return {4, 256, 144, 4, 640};
    case 5: return {5, 256, 176, 5, 640};
    case 6: return {6, 256, 210, 6, 576};
    case 8: return {8, 32, 34, 8, 512};
    case 20: return {20, 32, 18, 4, 512};
    case 23: return {23, 256, 136, 4, 576};
  }
  throw std::invalid_argument("k-quant id");
}
inline const int kIq4[16] = {-127, -104, -83, -65, -49, -35, -22, -10, 1, 13, 25, 38, 53, 69, 89, 113};
inline const std::vector<int> kKquantIds = {2, 3, 4, 5, 6, 8, 20, 23};

inline int lo4(int x) { return x & 15; }
inline int hi4(int x) { return x >> 4; }
inline int bitsof(int x, int p, int n) { return (x >> p) & ((1 << n) - 1); }
inline uint16_t u16(const uint8_t* B, int o) { return (uint16_t)(B[o] | (B[o + 1] << 8)); }

// Q3_K's sixteen 6-bit scales.
inline int q3_scale(const uint8_t* B, int i) {
  const uint8_t* c = B + 96;
  const int low4 = i < 8 ? lo4(c[i]) : hi4(c[i - 8]);
  const int high2 = bitsof(c[8 + i % 4], 2 * (i / 4), 2);
  return low4 | (high2 << 4);
}
// Q4_K / Q5_K scale and min of sub-block k.
inline void q45_sm(const uint8_t* B, int k, int& sc, int& m) {
  const uint8_t* c = B + 4;
  if (k < 4) {
    sc = c[k] & 63;
    m = c[k + 4] & 63;
  } else {
    sc = lo4(c[k + 4]) | ((c[k - 4] >> 6) << 4);
    m = hi4(c[k + 4]) | ((c[k] >> 6) << 4);
  }
}
inline int iq4xs_ls(const uint8_t* B, int b) {
  return bitsof(B[4 + b / 2], 4 * (b % 2), 4) | (bitsof(u16(B, 2), 2 * b, 2) << 4);
}

// Weight j of one GGUF block: the unsigned code the planes store, the level
// the fma multiplies, and (a, b).
struct KWeight {
  int code;
  float level, a, b;
};
inline KWeight kweight(int id, const uint8_t* B, int j) {
  const int h = j / 128, g = (j % 128) / 32, l = j % 32;
  KWeight w{};
  switch (id) {
    case 2: {
      const int s = B[j / 16];
      w.code = bitsof(B[16 + 32 * h + l], 2 * g, 2);
      w.a = f16(u16(B, 80)) * (float)lo4(s);
      w.b = -f16(u16(B, 82)) * (float)hi4(s);
      break;
    }
    case 3: {
      const int low2 = bitsof(B[32 + 32 * h + l], 2 * g, 2);
      const int hb = (B[j % 32] >> (j / 32)) & 1;
      w.code = low2 + 4 * hb;
      w.a = f16(u16(B, 108)) * (float)(q3_scale(B, j / 16) - 32);
      w.b = -4.0f * w.a;
      break;
    }
    case 4:
    case 5: {
      const int c = j / 64, k = j / 32, base = id == 4 ? 16 : 48;
      const int byte = B[base + 32 * c + j % 32];
      w.code = k % 2 == 0 ? lo4(byte) : hi4(byte);
      if (id == 5) w.code += 16 * ((B[16 + j % 32] >> k) & 1);
      int sc, m;
      q45_sm(B, k, sc, m);
      w.a = f16(u16(B, 0)) * (float)sc;
      w.b = -f16(u16(B, 2)) * (float)m;
      break;
    }
    case 6: {
      const int byte = B[64 * h + 32 * (g % 2) + l];
      const int low4 = g < 2 ? lo4(byte) : hi4(byte);
      const int hi2 = bitsof(B[128 + 32 * h + l], 2 * g, 2);
      w.code = low4 | (hi2 << 4);
      w.a = f16(u16(B, 208)) * (float)(int8_t)B[192 + j / 16];
      w.b = -32.0f * w.a;
      break;
    }
    case 8:
      w.code = B[2 + j] ^ 0x80;
      w.a = f16(u16(B, 0));
      w.b = -128.0f * w.a;
      break;
    case 20:
      w.code = j < 16 ? lo4(B[2 + j]) : hi4(B[2 + j - 16]);
      w.a = f16(u16(B, 0));
      w.b = 0.0f;
      break;
    case 23: {
      const int b = j / 32, t = j % 32;
      w.code = t < 16 ? lo4(B[8 + 16 * b + t]) : hi4(B[8 + 16 * b + t - 16]);
      w.a = f16(u16(B, 0)) * (float)(iq4xs_ls(B, b) - 32);
      w.b = 0.0f;
      break;
    }
  }
  w.level = (id == 20 || id == 23) ? (float)kIq4[w.code] : (float)w.code;
  return w;
}

// Row-major bf16 [N, K] of a GGUF tensor.
inline std::vector<uint16_t> kquant_dequant(int id, const std::vector<uint8_t>& src, int64_t N, int64_t K) {
  const KFormat f = kformat(id);
  const int64_t row_bytes = K / f.block_weights * f.block_bytes;
  std::vector<uint16_t> out((size_t)(N * K));
  for (int64_t n = 0; n < N; ++n)
    for (int64_t k = 0; k < K; ++k) {
      const uint8_t* B = src.data() + n * row_bytes + (k / f.block_weights) * f.block_bytes;
      const KWeight w = kweight(id, B, (int)(k % f.block_weights));
      out[(size_t)(n * K + k)] = round_dequant(std::fmaf(w.level, w.a, w.b));
    }
  return out;
}

// The planes as their layout states them. `meta_written` marks the bytes a
// shuffle writes (a ragged last super-block leaves some unwritten).
struct KPlanes {
  std::vector<uint8_t> quant, meta, meta_written;
};
inline KPlanes kquant_planes(int id, const std::vector<uint8_t>& src, int64_t N, int64_t K) {
  const KFormat f = kformat(id);
  const int64_t row_bytes = K / f.block_weights * f.block_bytes, SB = (K + 255) / 256;
  KPlanes p;
  p.quant.assign((size_t)(N * K * f.bits / 8 + 4), 0);
  p.meta.assign((size_t)(N / 32 * SB * f.meta_tile), 0);
  p.meta_written.assign(p.meta.size(), 0);
  auto block_of = [&](int64_t n, int64_t k) {
    return src.data() + n * row_bytes + (k / f.block_weights) * f.block_bytes;
  };
  for (int64_t n = 0; n < N; ++n) {
    for (int64_t k = 0; k < K; ++k) {
      const int code = kweight(id, block_of(n, k), (int)(k % f.block_weights)).code;
      const int64_t row = ((k / 32) * (N / 32) + n / 32) * (32 * 4 * f.bits) + (n % 32) * 4 * f.bits;
      for (int b = 0; b < f.bits; ++b) {
        const int64_t bit = (k % 32) * f.bits + b;
        if ((code >> b) & 1) p.quant[(size_t)(row + bit / 8)] |= (uint8_t)(1 << (bit % 8));
      }
    }
    for (int64_t s = 0; s < SB; ++s) {
      const int64_t tile = (s * (N / 32) + n / 32) * f.meta_tile, r = n % 32;
      uint8_t* e = p.meta.data() + tile + r * 16;
      uint8_t* we = p.meta_written.data() + tile + r * 16;
      auto put16 = [&](uint8_t* at, uint8_t* wat, uint16_t v) {
        at[0] = (uint8_t)v;
        at[1] = (uint8_t)(v >> 8);
        wat[0] = wat[1] = 1;
      };
      const uint8_t* B = block_of(n, s * 256);
      const int tail_w = (f.meta_tile - 512) / 32;
      uint8_t* tail = p.meta.data() + tile + 512 + r * tail_w;
      uint8_t* wtail = p.meta_written.data() + tile + 512 + r * tail_w;
      switch (id) {
        case 2:
          for (int i = 0; i < 16; ++i) e[i] = B[i];
          put16(tail, wtail, u16(B, 80));
          put16(tail + 2, wtail + 2, u16(B, 82));
          break;
        case 3:
          for (int i = 0; i < 16; ++i) e[i] = (uint8_t)(int8_t)(q3_scale(B, i) - 32);
          put16(tail, wtail, u16(B, 108));
          break;
        case 4:
        case 5:
          for (int g = 0; g < 8; ++g) {
            int sc, m;
            q45_sm(B, g, sc, m);
            e[2 * g] = (uint8_t)sc;
            e[2 * g + 1] = (uint8_t)m;
          }
          put16(tail, wtail, u16(B, 0));
          put16(tail + 2, wtail + 2, u16(B, 2));
          break;
        case 6:
          for (int i = 0; i < 16; ++i) e[i] = B[192 + i];
          put16(tail, wtail, u16(B, 208));
          break;
        case 8:
        case 20:
          for (int g = 0; g < 8 && s * 256 + g * 32 < K; ++g)
            put16(e + 2 * g, we + 2 * g, u16(block_of(n, s * 256 + g * 32), 0));
          break;
        case 23:
          for (int g = 0; g < 8; ++g) put16(e + 2 * g, we + 2 * g, (uint16_t)(int16_t)(iq4xs_ls(B, g) - 32));
          put16(tail, wtail, u16(B, 0));
          break;
      }
      if (id != 8 && id != 20)
        for (int i = 0; i < 16; ++i) we[i] = 1;
    }
  }
  return p;
}

// ---- Table files -------------------------------------------------------------------
// The values of one data/gguf/tables file (hex, one per line, a comment first).
inline std::vector<uint64_t> read_table(const std::string& path) {
  std::ifstream in(path);
  if (!in) throw std::runtime_error("cannot open " + path);
  std::vector<uint64_t> v;
  std::string line;
  while (std::getline(in, line)) {
    if (line.empty() || line[0] == '#') continue;
    v.push_back(std::stoull(line, nullptr, 16));
  }
  return v;
}

// ---- Low-bit expert formats ----------------------------------------------------------
struct LowBitTables {
  std::vector<uint64_t> iq2xxs, iq3xxs, iq2s, ksigns, fp4;
};
inline LowBitTables load_lowbit_tables(const std::string& dir) {
  return {read_table(dir + "/iq2xxs_grid.txt"), read_table(dir + "/iq3xxs_grid.txt"),
          read_table(dir + "/iq2s_grid.txt"), read_table(dir + "/ksigns_iq2xs.txt"),
          read_table(dir + "/kvalues_mxfp4.txt")};
}
inline int lowbit_block_weights(int q) { return q == 2 ? 32 : 256; }
inline int lowbit_block_bytes(int q) { return q == 0 ? 66 : q == 1 ? 98 : q == 2 ? 17 : 82; }

// Weight j of a block as an fp32 value, in GGUF's order of operations.
inline float lowbit_value(const LowBitTables& t, int q, const uint8_t* B, int j) {
  const int b = j / 32, g = (j % 32) / 8, k = j % 8;
  auto byte_of = [](uint64_t v, int i) { return (int)((v >> (8 * i)) & 0xff); };
  if (q == 2) {
    const int code = j < 16 ? lo4(B[1 + j]) : hi4(B[1 + j - 16]);
    // A code's sign is its bit 3, so code 8 is a negative zero.
    const int8_t kv = (int8_t)t.fp4[code];
    const float mag = (float)(kv < 0 ? -kv : kv);
    const int e = B[0];
    const float dh = e >= 2 ? from_bits((uint32_t)(e - 1) << 23) : std::ldexp(1.0f, e - 128);
    return (code & 8 ? -mag : mag) * dh;
  }
  const float d = f16(u16(B, 0));
  float db;
  int mag, neg;
  if (q == 0) {
    const uint32_t A = (uint32_t)u16(B, 2 + 8 * b + 4) | ((uint32_t)u16(B, 2 + 8 * b + 6) << 16);
    db = (d * (0.5f + (float)(A >> 28))) * 0.25f;
    mag = byte_of(t.iq2xxs[B[2 + 8 * b + g]], k);
    neg = (int)(t.ksigns[(A >> (7 * g)) & 127] >> k) & 1;
  } else if (q == 1) {
    const uint32_t A = (uint32_t)u16(B, 66 + 4 * b) | ((uint32_t)u16(B, 66 + 4 * b + 2) << 16);
    db = (d * (0.5f + (float)(A >> 28))) * 0.5f;
    mag = byte_of(t.iq3xxs[B[2 + 8 * b + 2 * g + k / 4]], k % 4);
    neg = (int)(t.ksigns[(A >> (7 * g)) & 127] >> k) & 1;
  } else {
    const int idx = B[2 + 4 * b + g] | (bitsof(B[66 + b], 2 * g, 2) << 8);
    const int s = g < 2 ? lo4(B[74 + b]) : hi4(B[74 + b]);
    db = (d * (0.5f + (float)s)) * 0.25f;
    mag = byte_of(t.iq2s[idx], k);
    neg = (B[34 + 4 * b + g] >> k) & 1;
  }
  return (db * (float)mag) * (neg ? -1.0f : 1.0f);
}

// Plane entries of one matrix of R rows at global row offset 0, stride in rows:
// p0/p1 entry [kb][row] at (kb * stride + row) * width, p2 entry [sb][row].
struct LowBitPlanesRef {
  std::vector<uint8_t> p0, p1, p2;
};
inline LowBitPlanesRef lowbit_planes(int q, const std::vector<uint8_t>& src, int64_t R, int64_t K, int64_t stride) {
  const int w0 = q == 0 ? 4 : q == 2 ? 16 : 8, w1 = q == 2 ? 1 : 4;
  const int bw = lowbit_block_weights(q), bb = lowbit_block_bytes(q);
  const int64_t row_bytes = K / bw * bb;
  LowBitPlanesRef p;
  p.p0.assign((size_t)(stride * w0 * (K / 32)), 0);
  p.p1.assign((size_t)(stride * w1 * (K / 32)), 0);
  p.p2.assign(q == 2 ? 0 : (size_t)(stride * 2 * (K / 256)), 0);
  for (int64_t r = 0; r < R; ++r)
    for (int64_t kb = 0; kb < K / 32; ++kb) {
      const uint8_t* B = src.data() + r * row_bytes + (kb * 32 / bw) * bb;
      const int j = (int)(kb % 8);
      uint8_t* e0 = p.p0.data() + (kb * stride + r) * w0;
      uint8_t* e1 = p.p1.data() + (kb * stride + r) * w1;
      if (q == 2) {
        for (int t = 0; t < 16; ++t) {
          auto wt = [&](int i) { return i < 16 ? lo4(B[1 + i]) : hi4(B[1 + i - 16]); };
          e0[t] = (uint8_t)(wt(2 * t) | (wt(2 * t + 1) << 4));
        }
        e1[0] = B[0];
        continue;
      }
      if (j == 0) std::memcpy(p.p2.data() + ((kb / 8) * stride + r) * 2, B, 2);
      if (q == 0) {
        std::memcpy(e0, B + 2 + 8 * j, 4);
        std::memcpy(e1, B + 6 + 8 * j, 4);
      } else if (q == 1) {
        std::memcpy(e0, B + 2 + 8 * j, 8);
        std::memcpy(e1, B + 66 + 4 * j, 4);
      } else {
        const uint8_t* qs = B + 2;
        const int qh = B[66 + j], sc = B[74 + j];
        const uint16_t v[4] = {(uint16_t)(qs[4 * j] | (qh & 3) << 8 | (sc & 0x0f) << 12),
                               (uint16_t)(qs[4 * j + 1] | ((qh >> 2) & 3) << 8 | (sc & 0xf0) << 8),
                               (uint16_t)(qs[4 * j + 2] | ((qh >> 4) & 3) << 8),
                               (uint16_t)(qs[4 * j + 3] | ((qh >> 6) & 3) << 8)};
        std::memcpy(e0, v, 8);
        std::memcpy(e1, B + 34 + 4 * j, 4);
      }
    }
  return p;
}

// ---- Random valid blocks -----------------------------------------------------------
// Random bytes with every f16 scale finite (bit 14 cleared: |d| < 2) and, for
// MXFP4, exponents in 2..252.
template <class Rng>
inline std::vector<uint8_t> random_blocks(Rng& rng, int block_bytes, int64_t blocks,
                                          const std::vector<int>& f16_offsets, bool mxfp4 = false) {
  std::vector<uint8_t> v((size_t)(block_bytes * blocks));
  for (auto& x : v) x = (uint8_t)rng();
  for (int64_t b = 0; b < blocks; ++b) {
    uint8_t* B = v.data() + b * block_bytes;
    for (int o : f16_offsets) B[o + 1] &= 0xBF;
    if (mxfp4) B[0] = (uint8_t)(2 + rng() % 251);
  }
  return v;
}
inline std::vector<int> kquant_f16_offsets(int id) {
  switch (id) {
    case 2: return {80, 82};
    case 3: return {108};
    case 4:
    case 5: return {0, 2};
    case 6: return {208};
    default: return {0};
  }
}

}  // namespace ref
