// The two functions the device computes at hardware precision. A reference
// takes the device's value on the exact input (tests/common/device_math.cpp)
// and does everything around it itself.
#pragma once

namespace ref {
float hw_rsq(float m);
float hw_exp2(float x);
}  // namespace ref
