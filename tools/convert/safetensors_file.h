// Reads checkpoints in the safetensors format: an 8-byte little-endian header
// length, a JSON header mapping tensor names to dtype, shape and byte range,
// then the data. Every size in the header is checked against the file before
// any byte is used.
#pragma once

#include <cstdint>
#include <filesystem>
#include <span>
#include <vector>

#include "tools/convert/mapped_file.h"
#include "tools/convert/source_tensor.h"

namespace quorvel::convert {

// Adds the tensors of one file's bytes to `into` (their spans point into
// `bytes`). Throws ConvertError naming `file` (and the tensor, where one is
// at fault) for: a header length beyond the file, a header that is not UTF-8
// JSON or not an object of tensor entries, offsets outside the data block or
// reversed, a byte range that disagrees with dtype and shape, and names that
// appear twice. "__metadata__" is skipped.
void parse_safetensors(std::span<const std::uint8_t> bytes, const std::filesystem::path& file, TensorSet& into);

// All the safetensors of a checkpoint directory, mapped. With
// "model.safetensors.index.json" the shards are those its weight_map names,
// and every tensor it lists must be in the shard it names; without it, every
// "*.safetensors" file of the directory. Throws ConvertError.
struct SafetensorsCheckpoint {
  std::vector<MappedFile> files;
  TensorSet tensors;
};
SafetensorsCheckpoint read_safetensors_checkpoint(const std::filesystem::path& dir);

// One file on its own (an adapter's "adapter_model.safetensors").
SafetensorsCheckpoint read_safetensors_file(const std::filesystem::path& path);

}  // namespace quorvel::convert
