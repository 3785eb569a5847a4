#include "tools/convert/json_file.h"

#include <cmath>
#include <fstream>
#include <sstream>

#include "tools/convert/convert_error.h"

namespace quorvel::convert {
namespace {

[[noreturn]] void wrong_type(const std::filesystem::path& file, const char* key, const char* wanted) {
  throw ConvertError(file, std::string("key '") + key + "' must be " + wanted);
}

const json* present(const json& object, const char* key) {
  const auto found = object.find(key);
  return found == object.end() || found->is_null() ? nullptr : &*found;
}

}  // namespace

json read_json_file(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw ConvertError(path, "cannot be opened");
  std::ostringstream text;
  text << in.rdbuf();
  json parsed;
  try {
    parsed = json::parse(text.str());
  } catch (const json::exception& error) {
    throw ConvertError(path, std::string("is not valid JSON (") + error.what() + ")");
  }
  if (!parsed.is_object()) throw ConvertError(path, "does not hold a JSON object");
  return parsed;
}

std::optional<std::uint64_t> json_count(const json& object, const char* key, const std::filesystem::path& file) {
  const json* value = present(object, key);
  if (!value) return std::nullopt;
  if (!value->is_number_unsigned()) wrong_type(file, key, "a whole number of 0 or more");
  return value->get<std::uint64_t>();
}

std::optional<double> json_number(const json& object, const char* key, const std::filesystem::path& file) {
  const json* value = present(object, key);
  if (!value) return std::nullopt;
  if (!value->is_number() || !std::isfinite(value->get<double>())) wrong_type(file, key, "a finite number");
  return value->get<double>();
}

std::optional<bool> json_flag(const json& object, const char* key, const std::filesystem::path& file) {
  const json* value = present(object, key);
  if (!value) return std::nullopt;
  if (!value->is_boolean()) wrong_type(file, key, "true or false");
  return value->get<bool>();
}

std::optional<std::string> json_text(const json& object, const char* key, const std::filesystem::path& file) {
  const json* value = present(object, key);
  if (!value) return std::nullopt;
  if (!value->is_string()) wrong_type(file, key, "a string");
  return value->get<std::string>();
}

std::optional<std::vector<std::int64_t>> json_ids(const json& object, const char* key,
                                                  const std::filesystem::path& file) {
  const json* value = present(object, key);
  if (!value) return std::nullopt;
  const json list = value->is_array() ? *value : json::array({*value});
  std::vector<std::int64_t> ids;
  for (const json& id : list) {
    if (!id.is_number_integer()) wrong_type(file, key, "a token id or a list of token ids");
    ids.push_back(id.get<std::int64_t>());
  }
  return ids;
}

std::uint64_t required_count(const json& object, const char* key, const std::filesystem::path& file) {
  const std::optional<std::uint64_t> value = json_count(object, key, file);
  if (!value) throw ConvertError(file, std::string("key '") + key + "' is missing");
  return *value;
}

}  // namespace quorvel::convert
