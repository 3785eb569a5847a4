// The order in which the sampler ranks logits and probabilities.
#pragma once

#include <cmath>

namespace quorvel {

// True when `a` ranks strictly before `b` in descending order. NaN ranks
// after every number: plain `a > b` is not a strict weak order once a NaN
// appears, and the standard selection and sort algorithms may then read
// outside the range they were given.
inline bool ranks_before(float a, float b) { return a > b || (std::isnan(b) && !std::isnan(a)); }

}  // namespace quorvel
