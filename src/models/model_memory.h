// The memory a model will take, computed from its init config before
// anything is allocated, so that start-up can refuse a model that the
// machine cannot hold instead of crawling in swap or being killed.
#pragma once

#include <cstdint>
#include <string>

#include "config/init_config.h"
#include "runtime/checked_size.h"

namespace quorvel {

struct ModelMemory {
  // Bytes, each saturating at kSizeOverflow instead of wrapping.
  std::uint64_t weights = 0;  // resident weights, plus the largest table held only while loading
  std::uint64_t caches = 0;   // key/value caches of every layer
  std::uint64_t buffers = 0;  // activations, scratch, rotary tables, history, per-thread sampling space
  // The first part whose size overflows 64 bits, named by the config keys
  // it comes from ("the key/value caches (num_layers=... x ...)"); empty
  // when every part fits.
  std::string overflowing_part;

  std::uint64_t total() const { return size_add(weights, caches, buffers); }
};

// For the architecture in config.arch_type (an unknown code counts no layer
// weights) with `threads` pool threads. An adapter's memory is not known
// until its file is read and is not counted.
ModelMemory estimate_model_memory(const InitConfig& config, std::uint64_t threads);

// GiB with one decimal, or MiB below one GiB.
std::string readable_size(std::uint64_t bytes);

// "key=value", the way messages about the config name one of its entries.
std::string config_entry(const char* key, std::uint64_t value);

// What building has allocated at its peak by two points of its order: once
// the token embedding is read, and once everything but the layers is (the
// embedding, the final norm, the rotary tables and the scratch buffers).
std::uint64_t bytes_for_embedding(const InitConfig& config, std::uint64_t threads);
std::uint64_t bytes_before_layers(const InitConfig& config, std::uint64_t threads);

}  // namespace quorvel
