// What start-up refuses before it builds a model: init configs that the
// engine cannot serve, and models that the machine cannot hold. Each refusal
// is one "Error: " line naming the key, its value and what it must be; the
// engine prints it and exits with status 1.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "config/init_config.h"

namespace quorvel {

// Checks the config against the shapes that the layers, their buffers and
// the kernels can serve, then the estimated memory (with the current
// thread_count()) against `memory_bytes`. Configs that building the model
// answers with messages of its own (an unknown architecture code, a width
// that a weight format or a norm needs in whole groups of 128, more layers
// than the layer array can hold) are left to those (nullopt), unless what
// building allocates before that message already exceeds `memory_bytes`.
std::optional<std::string> start_up_refusal(const InitConfig& config, std::uint64_t memory_bytes);

}  // namespace quorvel
