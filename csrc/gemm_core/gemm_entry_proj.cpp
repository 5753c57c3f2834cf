// The linear-attention projections' scratch, from each geometry's constants.
#include "gemm_entry_proj.h"

namespace quillon::proj {

namespace {
int64_t max2(int64_t a, int64_t b) { return a > b ? a : b; }
}  // namespace

// The triple's term is sized for max_splits(K) on both split arms, which
// holds every split the launch takes.
int64_t linear_in_scratch_bytes(int64_t M) {
  int64_t r = 0;
  on_geometry<Qwen36MoeA3B, Qwen3627B, Qwen38FlashNext>(QUILLON_HERE, [&](auto g) {
    if (M <= 0) return;
    constexpr int32_t id = decltype(g)::id;
    constexpr KN qkv = linear_in_proj_qkv_kquant_shape(id), z = linear_in_proj_z_kquant_shape(id),
                 ba = linear_in_proj_ba_shape(id);
    const int64_t c = M < 32 ? M : 32;
    r = proj_scratch_bytes(M, qkv.K);
    r = max2(r, split_scratch_bytes(M, ba.N, ba.K));
    r = max2(r, split_scratch_bytes(M, z.N, z.K));
    r = max2(r, split_scratch_bytes(M, qkv.N, qkv.K));
    r = max2(r, c * max_splits(qkv.K) * (z.N + ba.N) * 4);
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
