// Model-sized LM head operands on the CPU device: buffers are lazily
// committed allocations, only the sampled column tiles are filled and run.
#pragma once
#include <gtest/gtest.h>
#include <hip/hip_runtime_api.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "common/test_util.h"
#include "gemm/gemm_test_util.h"
#include "common/device_ext.h"
#include "quillon/quillon.h"
#include "reference/gemm_ref.h"
#include "reference/lm_head_ref.h"

namespace lh {

struct Geo {
  int id;
  int64_t N, K;
  int64_t tiles() const { return N / 128; }
};
inline const Geo kGeos[] = {{0, 248320, 2048}, {1, 248320, 5120}, {2, 129280, 4096}, {3, 248320, 2560}};

// First, middle and last column tile.
inline std::vector<int64_t> sampled_tiles(const Geo& g) { return {0, g.tiles() / 2, g.tiles() - 1}; }
// Tiles next to the sampled ones, which no launch may touch.
inline std::vector<int64_t> idle_tiles(const Geo& g) { return {1, g.tiles() - 2}; }

// Only these workgroups of launch n from now (0 the next) run.
inline void sample(const std::vector<int64_t>& ids, int n = 0) { qt::sample_launch(n, ids); }

// hipMalloc without touching the body: only what a test writes is committed.
class Lazy {
 public:
  explicit Lazy(size_t bytes) {
    if (hipMalloc(&p_, bytes) != hipSuccess) throw std::runtime_error("hipMalloc");
  }
  Lazy(const Lazy&) = delete;
  ~Lazy() { (void)hipFree(p_); }
  template <class T = void>
  T* as() const {
    return static_cast<T*>(p_);
  }
  unsigned char* at(int64_t off) const { return static_cast<unsigned char*>(p_) + off; }

 private:
  void* p_ = nullptr;
};

inline void put(void* dst, const void* src, size_t n) {
  ASSERT_EQ(hipMemcpy(dst, src, n, hipMemcpyHostToDevice), hipSuccess);
}

// Logits of `rows` rows (M plus 16 past it), all poisoned.
struct Logits {
  int64_t N, rows;
  Lazy buf;
  Logits(int64_t N_, int64_t M) : N(N_), rows(M + 16), buf((size_t)((M + 16) * N_ * 4)) {
    EXPECT_EQ(hipMemset(buf.as(), 0xFF, (size_t)(rows * N * 4)), hipSuccess);
  }
  float* get() const { return buf.as<float>(); }
  // Columns of tile nt, rows 0 .. rows - 1, row-major 128 wide.
  std::vector<float> tile(int64_t nt) const {
    std::vector<float> v((size_t)(rows * 128));
    for (int64_t r = 0; r < rows; ++r)
      (void)hipMemcpy(v.data() + r * 128, buf.at((r * N + nt * 128) * 4), 512, hipMemcpyDeviceToHost);
    return v;
  }
};

inline int64_t count_poison(const std::vector<float>& v, size_t from, size_t to) {
  int64_t n = 0;
  for (size_t i = from; i < to; ++i) {
    uint32_t u;
    std::memcpy(&u, &v[i], 4);
    n += u == 0xFFFFFFFFu;
  }
  return n;
}

// Checks the sampled tiles against A times each tile's 128 weight rows B[t]:
// bit-exact when `exact`, else within the summation bound; rows past M and
// idle tiles keep their poison.
inline void check_logits(const Geo& g, const Logits& out, int64_t M, const std::vector<int64_t>& tiles,
                         const std::vector<float>& A, const std::vector<std::vector<float>>& B, bool exact) {
  for (size_t t = 0; t < tiles.size(); ++t) {
    SCOPED_TRACE(testing::Message() << "column tile " << tiles[t]);
    const auto got = out.tile(tiles[t]);
    const std::vector<float> rows(got.begin(), got.begin() + M * 128);
    const ref::TileLogits want = ref::head_tile(A, B[t], M, 128, g.K);
    if (exact) EXPECT_BITS_EQ(rows, gt::expect_f32(want.sum));
    else EXPECT_EQ(gt::count_outside(rows, want.sum, want.mag, g.K, false), 0);
    EXPECT_EQ(count_poison(got, (size_t)(M * 128), got.size()), 16 * 128) << "rows past M were stored";
  }
  if (qt::kCpuDevice)  // a GPU runs every tile
    for (int64_t nt : idle_tiles(g)) {
      const auto got = out.tile(nt);
      EXPECT_EQ(count_poison(got, 0, got.size()), (int64_t)got.size()) << "idle tile " << nt << " was written";
    }
}

}  // namespace lh
