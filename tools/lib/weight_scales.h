// How large the synthetic weights are, and why.
//
// Every projection multiplies int8 codes of a row whose RMS is near 1: the
// row was just RMS-normalized with weights near 1, or (for the quantize-only
// inputs of O and down) it is an attention average of unit-RMS value rows or
// a gated product of unit-RMS rows (silu(g) * u has RMS ~0.6, relu(g)^2 * u
// ~1.2). The int8 step keeps that magnitude. With independent weights of RMS
// w, an output element sums `in` such terms and has RMS sqrt(in) * w. So:
//  - Q, K, V, FFN 1 and FFN 2 get w = 1 / sqrt(in): unit-RMS outputs, so
//    attention scores q.k / sqrt(D) spread by about 1 (a soft but not flat
//    softmax) and the gate works in the curved part of silu / relu^2.
//  - O and down add into the residual stream. The 2L branches add roughly
//    independent terms, whose variances add; an output RMS of
//    kResidualRms / sqrt(2L) per branch (for unit-RMS inputs) bounds the
//    stream near kResidualRms at any depth instead of letting it grow with L.
//    In practice it ends up to a half lower over a few dozen positions:
//    attention averages value rows over the context, shrinking O's input.
//  - Embedding and lm_head rows have element RMS kLogitSpread / sqrt(hidden).
//    The final norm hands the unembedding a unit-RMS row, so the logits
//    spread with a standard deviation near kLogitSpread: among a thousand
//    tokens the best stands a few units clear of the median, and which token
//    that is depends on the whole hidden row.
//  - Tied tables make the current token's embedding its own logit row too:
//    its share of the final row favours repeating it by about
//    kLogitSpread^2 / |stream| against a spread of kLogitSpread. A stream of
//    kResidualRms = 4 * kLogitSpread (so several units even after the
//    attention shrinkage) keeps that bonus below one spread. With a stream
//    of 3, greedy decoding of tied models got stuck on one token for most of
//    its steps; at 12 tied and untied models behave alike.
//    Untied models do not care: the embedding's share of the stream only
//    moves where token identity lives, and layer 0 normalizes it back up.
//  - Norm weights are 1 +- 10% and biases +- 0.1: distinct per channel
//    without moving any scale.
//  - Block scales vary by +- 50% around their target, so that a kernel that
//    applies the wrong block's scale gives visibly wrong results.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>

namespace quorvel::tools {

inline constexpr double kLogitSpread = 3.0;
inline constexpr double kResidualRms = 4.0 * kLogitSpread;
inline constexpr float kNormWeightSpread = 0.1f;
inline constexpr float kBiasSpread = 0.1f;
inline constexpr float kBlockScaleSpread = 0.5f;

inline double projection_weight_rms(std::uint64_t in_width) { return 1.0 / std::sqrt(static_cast<double>(in_width)); }

inline double residual_weight_rms(std::uint64_t in_width, std::uint64_t num_layers) {
  const double branches = 2.0 * static_cast<double>(std::max<std::uint64_t>(num_layers, 1));
  return kResidualRms / std::sqrt(branches) * projection_weight_rms(in_width);
}

inline double table_weight_rms(std::uint64_t hidden_dim) { return kLogitSpread * projection_weight_rms(hidden_dim); }

}  // namespace quorvel::tools
