// Inputs and the head-by-head float reference runner of the gated delta rule
// tests. The float reference takes e^(a_log) and the softplus from the device
// (as it takes exp2 and rsq): both are checked against double on their own.
#pragma once
#include <cmath>
#include <vector>

#include "common/device_math.h"
#include "common/test_util.h"
#include "reference/gdr_ref.h"

namespace lt {

struct Geo {
  int id, hv;
  int64_t conv;
};
inline constexpr Geo kGeos[] = {{0, 32, 8192}, {1, 48, 10240}, {3, 48, 10240}};

std::vector<float> device_softplus(const std::vector<float>& x);

// Token rows of conv width, logits as the fused layer keeps them (b then a,
// row stride 2*HV), per-layer constants, and the device's gate inputs.
struct Inputs {
  Geo geo;
  int64_t tokens;
  std::vector<uint16_t> qkv, ba;
  std::vector<float> a_log, dt_bias, ea, sp;  // sp: [token][head]

  const uint16_t* q(int64_t t, int h) const { return &qkv[(size_t)(t * geo.conv + (h * 16 / geo.hv) * 128)]; }
  const uint16_t* k(int64_t t, int h) const { return q(t, h) + 2048; }
  const uint16_t* v(int64_t t, int h) const { return &qkv[(size_t)(t * geo.conv + 4096 + h * 128)]; }
  float b(int64_t t, int h) const { return ref::widen(ba[(size_t)(t * 2 * geo.hv + h)]); }
  float a(int64_t t, int h) const { return ref::widen(ba[(size_t)(t * 2 * geo.hv + geo.hv + h)]); }

  // Fills sp and ea after the caller has shaped the raw inputs.
  void derive() {
    std::vector<float> x((size_t)(tokens * geo.hv));
    for (int64_t t = 0; t < tokens; ++t)
      for (int h = 0; h < geo.hv; ++h) x[(size_t)(t * geo.hv + h)] = a(t, h) + dt_bias[(size_t)h];
    sp = device_softplus(x);
    ea = qt::device_fn(qt::DevFn::Exp, a_log);
  }
};

inline Inputs make_inputs(qt::Rng& rng, Geo geo, int64_t tokens) {
  Inputs in{geo, tokens, rng.bf16s((size_t)(tokens * geo.conv), -2.f, 2.f),
            rng.bf16s((size_t)(tokens * 2 * geo.hv), -4.f, 4.f), rng.floats((size_t)geo.hv, -2.f, 1.f),
            rng.floats((size_t)geo.hv, -1.f, 1.f), {}, {}};
  in.derive();
  return in;
}

// State of one slot: HV heads of 128 x 128 floats.
using SlotState = std::vector<std::vector<float>>;

inline SlotState slot_state(const std::vector<float>& pool, int64_t slot, int hv) {
  SlotState s((size_t)hv);
  for (int h = 0; h < hv; ++h) {
    auto it = pool.begin() + (slot * hv + h) * 16384;
    s[(size_t)h].assign(it, it + 16384);
  }
  return s;
}
inline void put_slot(std::vector<float>& pool, int64_t slot, const SlotState& s) {
  for (size_t h = 0; h < s.size(); ++h) std::copy(s[h].begin(), s[h].end(), pool.begin() + (slot * (int64_t)s.size() + (int64_t)h) * 16384);
}

// One token through every head of the float reference; out is [HV][128] or null.
inline void ref_token(const Inputs& in, int64_t t, SlotState& s, uint16_t* out) {
  for (int h = 0; h < in.geo.hv; ++h) {
    const ref::GdrGatesF gt = ref::gdr_gates_f(in.b(t, h), in.ea[(size_t)h], in.sp[(size_t)(t * in.geo.hv + h)]);
    ref::gdr_step_f(s[(size_t)h], in.q(t, h), in.k(t, h), in.v(t, h), gt, out ? out + h * 128 : nullptr);
  }
}

}  // namespace lt
