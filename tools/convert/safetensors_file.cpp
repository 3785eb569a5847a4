#include "tools/convert/safetensors_file.h"

#include <algorithm>
#include <set>
#include <string>

#include "runtime/checked_size.h"
#include "tools/convert/convert_error.h"
#include "tools/convert/half_float.h"
#include "tools/convert/json_file.h"

namespace quorvel::convert {
namespace {

using std::filesystem::path;

constexpr std::uint64_t kLengthBytes = 8;

struct Dtype {
  const char* name;
  SourceType type;      // UNSUPPORTED: listed, sized, never read
  std::uint64_t bytes;  // per element
};

constexpr Dtype kDtypes[] = {
    {"F32", SourceType::F32, 4},
    {"F16", SourceType::F16, 2},
    {"BF16", SourceType::BF16, 2},
    {"U8", SourceType::U8, 1},
    {"I8", SourceType::I8, 1},
    {"F64", SourceType::UNSUPPORTED, 8},
    {"I64", SourceType::UNSUPPORTED, 8},
    {"U64", SourceType::UNSUPPORTED, 8},
    {"I32", SourceType::UNSUPPORTED, 4},
    {"U32", SourceType::UNSUPPORTED, 4},
    {"I16", SourceType::UNSUPPORTED, 2},
    {"U16", SourceType::UNSUPPORTED, 2},
    {"BOOL", SourceType::UNSUPPORTED, 1},
    {"F8_E4M3", SourceType::UNSUPPORTED, 1},
    {"F8_E5M2", SourceType::UNSUPPORTED, 1},
};

const Dtype* find_dtype(const std::string& name) {
  const auto found =
      std::find_if(std::begin(kDtypes), std::end(kDtypes), [&](const Dtype& d) { return name == d.name; });
  return found == std::end(kDtypes) ? nullptr : found;
}

// Reads a header field as a list of whole numbers.
std::vector<std::uint64_t> counts(const json& entry, const char* key, const path& file, const std::string& tensor) {
  const auto found = entry.find(key);
  if (found == entry.end() || !found->is_array()) {
    throw ConvertError(file, "tensor " + tensor + ": '" + key + "' must be a list of whole numbers");
  }
  std::vector<std::uint64_t> values;
  for (const json& value : *found) {
    if (!value.is_number_unsigned()) {
      throw ConvertError(file, "tensor " + tensor + ": '" + key + "' must be a list of whole numbers");
    }
    values.push_back(value.get<std::uint64_t>());
  }
  return values;
}

SourceTensor read_entry(const std::string& name, const json& entry, std::span<const std::uint8_t> data,
                        const path& file) {
  if (!entry.is_object()) throw ConvertError(file, "tensor " + name + ": its header entry is not an object");
  const auto dtype_field = entry.find("dtype");
  if (dtype_field == entry.end() || !dtype_field->is_string()) {
    throw ConvertError(file, "tensor " + name + ": 'dtype' must be a string");
  }
  SourceTensor tensor;
  tensor.name = name;
  tensor.file = file;
  tensor.type_name = dtype_field->get<std::string>();
  tensor.shape = counts(entry, "shape", file, name);
  const std::vector<std::uint64_t> range = counts(entry, "data_offsets", file, name);
  if (range.size() != 2 || range[0] > range[1] || range[1] > data.size()) {
    throw ConvertError(
        file, "tensor " + name + ": data_offsets lie outside the " + std::to_string(data.size()) + "-byte data block");
  }
  const Dtype* dtype = find_dtype(tensor.type_name);
  if (!dtype) throw ConvertError(file, "tensor " + name + ": unknown dtype '" + tensor.type_name + "'");
  const std::uint64_t bytes = size_mul(tensor.elements(), dtype->bytes);
  if (bytes != range[1] - range[0]) {
    throw ConvertError(file, "tensor " + name + ": dtype " + tensor.type_name + " and its shape need " +
                                 (size_overflowed(bytes) ? std::string("more than 2^64") : std::to_string(bytes)) +
                                 " bytes, but data_offsets hold " + std::to_string(range[1] - range[0]));
  }
  tensor.type = dtype->type;
  if (tensor.type != SourceType::UNSUPPORTED) tensor.data = data.subspan(range[0], bytes);
  return tensor;
}

// A shard name from an index must be a file of the same directory.
path shard_path(const path& dir, const std::string& name, const path& index) {
  const path shard(name);
  if (name.empty() || shard.has_parent_path() || name == "." || name == "..") {
    throw ConvertError(index, "weight_map names '" + name + "', which is not a file of this directory");
  }
  return dir / shard;
}

SafetensorsCheckpoint read_indexed(const path& dir, const path& index) {
  const json weight_map = read_json_file(index).value("weight_map", json());
  if (!weight_map.is_object()) throw ConvertError(index, "key 'weight_map' must map tensor names to shard files");
  std::set<std::string> shards;
  for (const auto& [name, shard] : weight_map.items()) {
    if (!shard.is_string()) throw ConvertError(index, "weight_map entry " + name + " must name a shard file");
    shards.insert(shard.get<std::string>());
  }
  SafetensorsCheckpoint checkpoint;
  for (const std::string& shard : shards) {
    checkpoint.files.emplace_back(shard_path(dir, shard, index));
    parse_safetensors(checkpoint.files.back().bytes(), checkpoint.files.back().path(), checkpoint.tensors);
  }
  for (const auto& [name, shard] : weight_map.items()) {
    const SourceTensor* tensor = checkpoint.tensors.find(name);
    if (!tensor || tensor->file != dir / shard.get<std::string>()) {
      throw ConvertError(index,
                         "tensor " + name + " is not in " + shard.get<std::string>() + ", where weight_map puts it");
    }
  }
  return checkpoint;
}

}  // namespace

void parse_safetensors(std::span<const std::uint8_t> bytes, const path& file, TensorSet& into) {
  if (bytes.size() < kLengthBytes) throw ConvertError(file, "is too short to be a safetensors file");
  const std::uint64_t header_bytes = load_le<std::uint64_t>(bytes.data());
  if (header_bytes > bytes.size() - kLengthBytes) {
    throw ConvertError(file, "header length " + std::to_string(header_bytes) + " is beyond the file's " +
                                 std::to_string(bytes.size()) + " bytes");
  }
  const auto* text = reinterpret_cast<const char*>(bytes.data() + kLengthBytes);
  // A JSON object keeps the last of two equal keys; a tensor named twice
  // must be refused, so the names are collected as they are parsed.
  std::set<std::string> names;
  const json::parser_callback_t refuse_repeats = [&](int depth, json::parse_event_t event, json& parsed) {
    if (depth == 1 && event == json::parse_event_t::key && !names.insert(parsed.get<std::string>()).second) {
      throw ConvertError(file, "tensor " + parsed.get<std::string>() + " appears twice");
    }
    return true;
  };
  json header;
  try {
    header = json::parse(text, text + header_bytes, refuse_repeats);
  } catch (const json::exception& error) {
    throw ConvertError(file, std::string("header is not valid UTF-8 JSON (") + error.what() + ")");
  }
  if (!header.is_object()) throw ConvertError(file, "header is not a JSON object of tensor entries");
  const std::span<const std::uint8_t> data = bytes.subspan(kLengthBytes + header_bytes);
  for (const auto& [name, entry] : header.items()) {
    if (name != "__metadata__") into.add(read_entry(name, entry, data, file));
  }
}

SafetensorsCheckpoint read_safetensors_checkpoint(const path& dir) {
  const path index = dir / "model.safetensors.index.json";
  if (std::filesystem::exists(index)) return read_indexed(dir, index);
  std::vector<path> names;
  for (const auto& entry : std::filesystem::directory_iterator(dir)) {
    if (entry.path().extension() == ".safetensors") names.push_back(entry.path());
  }
  if (names.empty()) throw ConvertError(dir, "holds no .safetensors files");
  std::sort(names.begin(), names.end());
  SafetensorsCheckpoint checkpoint;
  for (const path& name : names) {
    checkpoint.files.emplace_back(name);
    parse_safetensors(checkpoint.files.back().bytes(), name, checkpoint.tensors);
  }
  return checkpoint;
}

SafetensorsCheckpoint read_safetensors_file(const path& file) {
  SafetensorsCheckpoint checkpoint;
  checkpoint.files.emplace_back(file);
  parse_safetensors(checkpoint.files.back().bytes(), file, checkpoint.tensors);
  return checkpoint;
}

}  // namespace quorvel::convert
