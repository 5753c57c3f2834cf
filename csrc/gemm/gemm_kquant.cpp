// General k-quant GEMM entries: format dispatch onto the compiled variants.
#include "../gemm_core/gemm_shuffle.h"
#include "../platform/fatal.h"
#include "gemm_general.h"

namespace quillon {

using gemm_core::bf16;
using gemm_core::KQuantPlanes;

namespace {
template <class T>
void kquant_product(int32_t format, const void* A, const void* quant, const void* meta, T* C, int64_t M, int64_t N,
                    int64_t K, hipStream_t s, void* partials) {
  kq::on_kquant<kq::GeneralGemm>(QUILLON_HERE, format, [&](auto f) {
    if (M <= 0 || N / 128 <= 0) return;
    const gemm_core::GemmSplitParams<KQuantPlanes> p{
        {static_cast<const uint16_t*>(A),
         KQuantPlanes{static_cast<const uint32_t*>(quant), static_cast<const uint8_t*>(meta)}, C, M, N, K},
        static_cast<float*>(partials)};
    // As for bf16: a ragged N never splits, so whole-tile partials always fit.
    const int S = N % 128 == 0 ? gemm_split_count(M, N, K, partials != nullptr) : 1;
    gemm_kquant_run<decltype(f)::value, T>(p, S, s);
  });
}
}  // namespace

void gemm_kquant_shuffled(int32_t format, const void* A, const void* quant, const void* meta, float* C, int64_t M,
                          int64_t N, int64_t K, hipStream_t s, void* partials) {
  kquant_product(format, A, quant, meta, C, M, N, K, s, partials);
}
void gemm_kquant_shuffled(int32_t format, const void* A, const void* quant, const void* meta, bf16* C, int64_t M,
                          int64_t N, int64_t K, hipStream_t s, void* partials) {
  kquant_product(format, A, quant, meta, C, M, N, K, s, partials);
}

void gemm_kquant_to_blk32(int32_t format, const void* A, const void* quant, const void* meta, void* C, int64_t M,
                          int64_t N, int64_t K, int64_t W, int64_t col, hipStream_t s) {
  if (col < 0 || col % 32 != 0 || W % 32 != 0 || col + N > W)
    QUILLON_FATAL("gemm_kquant_to_blk32: [%lld columns at %lld] does not sit on 32-column blocks inside a "
                  "%lld-wide destination",
                  (long long)N, (long long)col, (long long)W);
  kq::on_kquant<kq::GeneralGemm>(QUILLON_HERE, format, [&](auto f) {
    if (M <= 0 || N / 128 <= 0) return;
    const gemm_core::GemmBlk32Params<KQuantPlanes> p{
        {static_cast<const uint16_t*>(A),
         KQuantPlanes{static_cast<const uint32_t*>(quant), static_cast<const uint8_t*>(meta)}, C, M, N, K},
        W / 32, col};
    gemm_kquant_blk32_run<decltype(f)::value>(p, s);
  });
}

int64_t gemm_kquant_a_ws_bytes(int64_t M, int64_t K) { return gemm_shuffled_a_bytes(M, K); }

void gemm_kquant_a(int32_t format, const void* A, const void* quant, const void* meta, void* C, int64_t M, int64_t N,
                   int64_t K, bool bf16_out, void* ws, hipStream_t s) {
  kq::require_format_id(QUILLON_HERE, format);
  kq::on_kquant<kq::GeneralGemm>(QUILLON_HERE, format, [](auto) {});
  if (M <= 0) return;
  shuffle_a_blk32(A, K, ws, gemm_core::PrefillTile::padded_rows(M), K, s, M);
  if (bf16_out) kquant_product(format, ws, quant, meta, static_cast<bf16*>(C), M, N, K, s, nullptr);
  else kquant_product(format, ws, quant, meta, static_cast<float*>(C), M, N, K, s, nullptr);
}

}  // namespace quillon
