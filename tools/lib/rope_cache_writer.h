// Writes "rope.cache": the header, then the cosine table and the sine table,
// each `max_positions` rows of `head_dim` f32 values (row p for position p).
// The tables are the half-split kind: element i of a row uses frequency
// theta^(-2 (i mod D/2) / D), so both halves of a row repeat the same angles.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace quorvel::tools {

inline constexpr char kRopeCacheFileName[] = "rope.cache";

// Why `head_dim` cannot be split into rotation pairs, or nullopt.
std::optional<std::string> unwritable_rope_shape(std::uint64_t head_dim);

// One frequency per rotation pair: theta^(-2 i / head_dim) for i < head_dim / 2.
std::vector<double> rope_pair_frequencies(std::uint64_t head_dim, double theta);

// The tables for the given pair frequencies (head_dim = 2 * their count),
// for models whose frequencies are scaled. Throws std::runtime_error when the
// file cannot be written.
void write_rope_cache(const std::filesystem::path& path, std::span<const double> frequencies,
                      std::uint64_t max_positions);

// Throws std::invalid_argument for an unwritable head_dim (before creating
// the file) and std::runtime_error when the file cannot be written.
void write_rope_cache(const std::filesystem::path& path, std::uint64_t head_dim, std::uint64_t max_positions,
                      double theta);

}  // namespace quorvel::tools
