// What one token costs the machine, from a model's shape: the bytes decode
// reads and the int8 multiply-adds prefill does. The bench divides measured
// speeds by these to say how close the engine runs to the machine's limits.
#pragma once

#include <cstdint>

#include "config/init_config.h"

namespace quorvel::host {

// Weights of the matrices of one layer: the q, k, v and output projections
// and the three feed-forward matrices (gate, up, down).
double layer_matrix_weights(const InitConfig& c);

// The weight bytes one decoded token streams: every projection of every
// layer at its format's bytes per weight, plus the unembedding table
// (vocabulary padded to 32 rows; a 1-bit head for q1_0_128 models, int8
// rows with a 4-byte scale otherwise).
double weight_bytes_per_token(const InitConfig& c);

// The key and value cache bytes one token's attention reads over
// `positions` cached positions: layers x 2 x kv_heads x head_dim x
// positions x 2 bytes (bf16 caches).
double kv_cache_bytes_per_token(const InitConfig& c, double positions);

// Cached positions attended on average by the decode steps a bench times:
// a request at kv_position `depth` with a `prompt`-token prompt prefills,
// samples its first token, then feeds `decoded` more tokens one by one; the
// i-th of those (i = 1 .. decoded) attends depth + prompt + i positions.
double mean_decode_positions(std::uint64_t depth, std::uint64_t prompt, std::uint64_t decoded);

// The int8 multiply-adds per prompt token of a `prompt`-token prefill:
// layer_matrix_weights x layers for every token, plus vocab x hidden for
// the unembedding of the last token only, shared among the prompt's tokens.
// Attention's own products are not counted.
double prefill_multiply_adds_per_token(const InitConfig& c, std::uint64_t prompt);

}  // namespace quorvel::host
