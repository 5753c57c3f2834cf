// K-quant format ids, the named sets of ids that families of kernels carry,
// the dispatch of a runtime id onto them, and the byte sizes of a format.
// These lists are the one source of what is instantiated: host dispatch,
// instantiation templates (ValueList::for_each) and the build
// (cmake/kquant_sets.cmake parses the FormatSet lines below) all read them.
// Internal to the library: not part of quillon.h.
#pragma once
#include <stdint.h>

#include "dispatch.h"

namespace quillon::kq {

// GGUF block types by this library's id.
enum FormatId : int {
  Q2_K = 2,
  Q3_K = 3,
  Q4_K = 4,
  Q5_K = 5,
  Q6_K = 6,
  Q8_0 = 8,
  IQ4_NL = 20,
  IQ4_XS = 23,
};

// The complete list of format ids.
using Formats = ValueList<2, 3, 4, 5, 6, 8, 20, 23>;
inline constexpr uint32_t kFormatMask = 0x90017C;

template <int... Ids>
struct FormatSet : ValueList<Ids...> {};

// The named sets. One struct per line, in the form the build parses.
struct KnownFormat : FormatSet<2, 3, 4, 5, 6, 8, 20, 23> { static constexpr const char* name = "known-format"; };
struct GeneralGemm : FormatSet<2, 3, 4, 5, 6, 8, 20, 23> { static constexpr const char* name = "general-GEMM"; };
struct DenseProjection : FormatSet<3, 4, 5, 6, 8, 20, 23> { static constexpr const char* name = "dense-projection"; };
struct RaggedK : FormatSet<8, 20> { static constexpr const char* name = "ragged-K"; };
struct DraftProjection : FormatSet<4, 6, 8> { static constexpr const char* name = "draft-projection"; };

namespace detail {
template <int... V>
constexpr uint32_t mask_of(ValueList<V...>) {
  return ((1u << V) | ... | 0u);
}
template <int... V>
constexpr bool within_formats(ValueList<V...>) {
  return ((V >= 0 && V < 24 && ((kFormatMask >> V) & 1u)) && ...);
}
}  // namespace detail
static_assert(detail::mask_of(Formats{}) == kFormatMask, "FORMATS and its mask disagree");
static_assert(detail::within_formats(KnownFormat{}) && detail::within_formats(GeneralGemm{}) &&
                  detail::within_formats(DenseProjection{}) && detail::within_formats(RaggedK{}) &&
                  detail::within_formats(DraftProjection{}),
              "every set is drawn from FORMATS");

// Ids run up to 23, so the mask test needs no shift past 31.
constexpr bool is_format_id(long long id) { return id >= 0 && id < 24 && ((kFormatMask >> id) & 1u); }

// The first check of every exported function that takes a format id.
inline void require_format_id(const char* file, int line, int32_t id) {
  if (!is_format_id(id)) fatal_at(file, line, "%d is not a k-quant format id (see kquant_sets's FORMATS list)", id);
}

namespace detail {
template <class Set>
[[noreturn]] inline void not_in_set(const char* file, int line, long long v, const void*) {
  fatal_at(file, line, "k-quant format %d is not in this build's %s set (kquant_sets)", (int)v, Set::name);
}
}  // namespace detail

// The set's dispatcher: calls f(Value<id>{}) when id is in Set, returning what
// f returns; otherwise the set's failure. Call sites pass QUILLON_HERE.
template <class Set, class F>
inline decltype(auto) on_kquant(const char* file, int line, int32_t id, F&& f) {
  return ::quillon::detail::dispatch_list(Set{}, file, line, id, f, &detail::not_in_set<Set>, nullptr);
}

// What a format's bytes are: the GGUF column, the code width and the tile sizes
// of the quant and meta planes.
struct FormatInfo {
  int id;
  const char* name;
  int gguf_bytes;       // GGUF bytes per 256 weights
  int gguf_block;       // weights per GGUF block: 32 or 256
  int bits;             // code bits per weight
  int meta_tile_bytes;  // one meta tile: 32 rows by one super-block
};
constexpr FormatInfo format_info(int id) {
  switch (id) {
    case Q2_K: return {Q2_K, "Q2_K", 84, 256, 2, 640};
    case Q3_K: return {Q3_K, "Q3_K", 110, 256, 3, 576};
    case Q4_K: return {Q4_K, "Q4_K", 144, 256, 4, 640};
    case Q5_K: return {Q5_K, "Q5_K", 176, 256, 5, 640};
    case Q6_K: return {Q6_K, "Q6_K", 210, 256, 6, 576};
    case Q8_0: return {Q8_0, "Q8_0", 272, 32, 8, 512};
    case IQ4_NL: return {IQ4_NL, "IQ4_NL", 144, 32, 4, 512};
    case IQ4_XS: return {IQ4_XS, "IQ4_XS", 136, 256, 4, 576};
    default: return {id, "", 0, 0, 0, 0};
  }
}
constexpr int quant_tile_bytes(int id) { return 32 * 4 * format_info(id).bits; }

// Byte sizes, after the id check and through the known-format set.
inline int64_t gguf_bytes(const char* file, int line, int32_t id, int64_t N, int64_t K) {
  require_format_id(file, line, id);
  return on_kquant<KnownFormat>(file, line, id, [&](auto f) -> int64_t {
    return N * K * format_info(f).gguf_bytes / 256;
  });
}
inline int64_t quant_bytes(const char* file, int line, int32_t id, int64_t N, int64_t K) {
  require_format_id(file, line, id);
  return on_kquant<KnownFormat>(file, line, id, [&](auto f) -> int64_t {
    return (N * K * format_info(f).bits + 7) / 8 + 4;
  });
}
inline int64_t meta_bytes(const char* file, int line, int32_t id, int64_t N, int64_t K) {
  require_format_id(file, line, id);
  return on_kquant<KnownFormat>(file, line, id, [&](auto f) -> int64_t {
    return (N + 31) / 32 * ((K + 255) / 256) * format_info(f).meta_tile_bytes;
  });
}

}  // namespace quillon::kq
