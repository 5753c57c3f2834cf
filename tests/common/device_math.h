// The device layer's hardware-precision functions evaluated by the device the
// tests run against. gfx1151's rsq and exp2 may differ from the correctly
// rounded value in the last bit, so a bit-exact reference takes the device's
// own value on the exact input instead of assuming one.
#pragma once
#include <vector>

namespace qt {

enum class DevFn : int { Exp2, Rcp, Rsq, Exp };

// One probe launch over all inputs.
std::vector<float> device_fn(DevFn fn, const std::vector<float>& x);
// One input, remembered across calls.
float device_fn(DevFn fn, float x);

}  // namespace qt
