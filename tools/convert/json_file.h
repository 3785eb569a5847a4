// JSON files of a checkpoint (config.json, generation_config.json,
// adapter_config.json) and typed access to their keys, with every failure a
// ConvertError that names the file and the key.
#pragma once

#include <cstdint>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

namespace quorvel::convert {

using nlohmann::json;

// The file's JSON object. Throws ConvertError when it is missing, not JSON,
// or not an object.
json read_json_file(const std::filesystem::path& path);

// A key of `object` read as the type asked for; nullopt when the key is
// absent or null. Throws ConvertError naming `file` and the key when the
// value has another type (or is a negative or fractional count).
std::optional<std::uint64_t> json_count(const json& object, const char* key, const std::filesystem::path& file);
std::optional<double> json_number(const json& object, const char* key, const std::filesystem::path& file);
std::optional<bool> json_flag(const json& object, const char* key, const std::filesystem::path& file);
std::optional<std::string> json_text(const json& object, const char* key, const std::filesystem::path& file);
// An integer or a list of integers ("eos_token_id").
std::optional<std::vector<std::int64_t>> json_ids(const json& object, const char* key,
                                                  const std::filesystem::path& file);

// The same, for keys that must be present.
std::uint64_t required_count(const json& object, const char* key, const std::filesystem::path& file);

}  // namespace quorvel::convert
