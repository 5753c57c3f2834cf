// Host-side launch helper: `<<<>>>` is not C++, so every launch goes through here.
#pragma once
#include <hip/hip_runtime_api.h>
#include <tuple>
#include <utility>
#include <type_traits>
#if defined(QUILLON_FLAVOUR_CPU)
#include "cpu/qcpu.h"
#endif

namespace quillon {

namespace detail {
#if defined(QUILLON_FLAVOUR_HIP)
template <class... P, size_t... I>
inline hipError_t launch_impl(void (*k)(P...), dim3 g, dim3 b, size_t lds, hipStream_t s, std::tuple<P...>& t,
                              std::index_sequence<I...>) {
  void* args[sizeof...(P) + 1] = {static_cast<void*>(&std::get<I>(t))...};
  return hipLaunchKernel(reinterpret_cast<const void*>(k), g, b, args, lds, s);
}
#else
template <class... P>
struct Closure {
  void (*k)(P...);
  std::tuple<P...> args;
  static void invoke(void* c) {
    auto* self = static_cast<Closure*>(c);
    std::apply(self->k, self->args);
  }
};
#endif
template <class... P, class... A>
inline hipError_t launch_any(int flags, void (*k)(P...), dim3 g, dim3 b, size_t lds, hipStream_t s, A&&... a) {
  static_assert(sizeof...(P) == sizeof...(A), "kernel argument count");
#if defined(QUILLON_FLAVOUR_HIP)
  (void)flags;
  std::tuple<P...> t(static_cast<P>(std::forward<A>(a))...);
  return launch_impl(k, g, b, lds, s, t, std::index_sequence_for<P...>{});
#else
  Closure<P...> c{k, std::tuple<P...>(static_cast<P>(std::forward<A>(a))...)};
  qcpu_dim3 gg{g.x, g.y, g.z}, bb{b.x, b.y, b.z};
  return static_cast<hipError_t>(qcpu_launch(gg, bb, lds, s, &Closure<P...>::invoke, &c, flags));
#endif
}
}  // namespace detail

// Launch `k` over grid g of blocks b with `lds` bytes of dynamic LDS.
template <class... P, class... A>
inline hipError_t launch(void (*k)(P...), dim3 g, dim3 b, size_t lds, hipStream_t s, A&&... a) {
  return detail::launch_any(0, k, g, b, lds, s, std::forward<A>(a)...);
}

// A launch whose workgroups wait for each other: every workgroup must be
// resident at once. On the GPU the caller sizes the grid to fit; the CPU device
// gives each workgroup its own worker.
template <class... P, class... A>
inline hipError_t launch_coresident(void (*k)(P...), dim3 g, dim3 b, size_t lds, hipStream_t s, A&&... a) {
#if defined(QUILLON_FLAVOUR_CPU)
  return detail::launch_any(QCPU_LAUNCH_CORESIDENT, k, g, b, lds, s, std::forward<A>(a)...);
#else
  return detail::launch_any(0, k, g, b, lds, s, std::forward<A>(a)...);
#endif
}

}  // namespace quillon
