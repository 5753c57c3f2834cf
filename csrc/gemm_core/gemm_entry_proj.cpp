// The linear-attention projections' scratch, from each geometry's constants.
#include "gemm_entry_proj.h"

namespace quillon::proj {

namespace {
// The in-projection of one geometry: K, the widths of its split arms, and the
// triple's split counts (the triple's arm 1 is the z arm).
struct LinearIn {
  int64_t K;
  int64_t qkv_n;  // k-quant qkv arm; splits only below kNoSplitFromN
  int64_t z_n;
  int64_t triple_s;
};
constexpr LinearIn linear_in_of(int32_t g) {
  return g == Qwen36MoeA3B::id ? LinearIn{2048, 8192, 4096, 8}
         : g == Qwen3627B::id  ? LinearIn{5120, 10240, 6144, 8}
                               : LinearIn{2560, 10240, 6144, 4};
}
int64_t max2(int64_t a, int64_t b) { return a > b ? a : b; }
}  // namespace

int64_t linear_in_scratch_bytes(int64_t M) {
  int64_t r = 0;
  on_geometry<Qwen36MoeA3B, Qwen3627B, Qwen38FlashNext>(QUILLON_HERE, [&](auto g) {
    if (M <= 0) return;
    constexpr LinearIn s = linear_in_of(decltype(g)::id);
    const int64_t c = M < 32 ? M : 32;
    r = proj_scratch_bytes(M, s.K);
    r = max2(r, split_scratch_bytes(M, 128, s.K));
    r = max2(r, split_scratch_bytes(M, s.z_n, s.K));
    r = max2(r, split_scratch_bytes(M, s.qkv_n, s.K));
    r = max2(r, c * (s.triple_s * s.z_n + s.triple_s * 128) * 4);
  });
  return r;
}

int64_t linear_out_scratch_bytes(int64_t M) {
  int64_t r = 0;
  on_geometry<Qwen36MoeA3B, Qwen3627B, Qwen38FlashNext>(QUILLON_HERE, [&](auto g) {
    using G = decltype(g);
    constexpr int64_t K = std::is_same_v<G, Qwen36MoeA3B> ? 4096 : 6144;
    constexpr int64_t N = std::is_same_v<G, Qwen36MoeA3B> ? 2048 : std::is_same_v<G, Qwen3627B> ? 5120 : 2560;
    r = proj_path_scratch_bytes(M, N, K);
  });
  return r;
}

}  // namespace quillon::proj
