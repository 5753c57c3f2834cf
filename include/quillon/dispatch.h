// Runtime values onto compile-time variants. A kernel exists only for the
// values of a compile-time list; a value outside the list stops the process,
// never falls back. Internal to the library: not part of quillon.h.
#pragma once
#include <stdint.h>

#include <type_traits>

#include "../../csrc/platform/fatal.h"

// Where a switch stands, for its failure message (same definition as geometry.h).
#define QUILLON_HERE __FILE__, __LINE__

namespace quillon {

template <int V>
using Value = std::integral_constant<int, V>;

// A compile-time list of accepted values. Instantiation files and generators
// iterate it with for_each; host entries dispatch over it.
template <int... V>
struct ValueList {
  static constexpr int size = (int)sizeof...(V);
  static constexpr int values[sizeof...(V) > 0 ? sizeof...(V) : 1] = {V...};
  static constexpr bool contains(long long v) { return ((v == (long long)V) || ...); }
  // Calls f(Value<v>{}) for every entry, in list order.
  template <class F>
  static constexpr void for_each(F&& f) {
    (f(Value<V>{}), ...);
  }
};

namespace detail {
using DispatchFail = void (*)(const char* file, int line, long long v, const void* ctx);

template <class R, class F>
inline R pick_value(const char* file, int line, long long v, F&, DispatchFail fail, const void* ctx) {
  fail(file, line, v, ctx);
  __builtin_unreachable();
}
template <class R, int V0, int... Vs, class F>
inline R pick_value(const char* file, int line, long long v, F& f, DispatchFail fail, const void* ctx) {
  if (v == (long long)V0) return f(Value<V0>{});
  return pick_value<R, Vs...>(file, line, v, f, fail, ctx);
}
template <int V0, int... Vs, class F>
inline decltype(auto) dispatch_list(ValueList<V0, Vs...>, const char* file, int line, long long v, F& f,
                                    DispatchFail fail, const void* ctx) {
  using R = decltype(f(Value<V0>{}));
  return pick_value<R, V0, Vs...>(file, line, v, f, fail, ctx);
}

[[noreturn]] inline void no_compiled_variant(const char* file, int line, long long v, const void*) {
  fatal_at(file, line, "no compiled variant for %lld", v);
}
}  // namespace detail

// The value-list dispatcher: compares v with the entries of List in order and
// calls f(Value<entry>{}) for the first match, returning what f returns; a value
// outside the list fails with "no compiled variant for %d". Call sites pass
// QUILLON_HERE so the message names the file the switch stands in.
template <class List, class F>
inline decltype(auto) dispatch_value(const char* file, int line, long long v, F&& f) {
  return detail::dispatch_list(List{}, file, line, v, f, &detail::no_compiled_variant, nullptr);
}

// Parameters with one or two compiled values are compared in the operator's
// own host entry; this is their one message form.
[[noreturn]] inline void no_instantiation(const char* file, int line, const char* op, const char* param,
                                          long long v) {
  fatal_at(file, line, "%s: no instantiation for %s %lld", op, param, v);
}
// The single-value check: passes when v is one of Vs, else the operator's
// "no instantiation" message.
template <long long... Vs>
inline void require_instantiated(const char* file, int line, const char* op, const char* param, long long v) {
  if (!((v == Vs) || ...)) no_instantiation(file, line, op, param, v);
}

}  // namespace quillon
