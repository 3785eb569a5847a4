#include "tools/convert/gguf_file.h"

#include <algorithm>
#include <bit>
#include <limits>
#include <utility>

#include "runtime/checked_size.h"
#include "tools/convert/convert_error.h"
#include "tools/convert/half_float.h"

namespace quorvel::convert {
namespace {

using std::filesystem::path;

constexpr char kMagic[] = {'G', 'G', 'U', 'F'};
constexpr std::uint64_t kDefaultAlignment = 32;
constexpr std::uint32_t kMaxDims = 4;
// The fewest bytes a key-value (empty key, type, a one-byte value) and a
// tensor info (empty name, n_dims, one extent, type, offset) can take.
constexpr std::uint64_t kMinKeyValueBytes = 8 + 4 + 1;
constexpr std::uint64_t kMinTensorInfoBytes = 8 + 4 + 8 + 4 + 8;

enum ValueType : std::uint32_t { U8, I8, U16, I16, U32, I32, F32, BOOL, STRING, ARRAY, U64, I64, F64, VALUE_TYPES };

// Bytes of one value of each type (a string's length field only).
constexpr std::uint64_t kValueBytes[VALUE_TYPES] = {1, 1, 2, 2, 4, 4, 4, 1, 8, 0, 8, 8, 8};

struct TensorType {
  std::uint32_t id;
  SourceType type;
  const char* name;
};

constexpr TensorType kTensorTypes[] = {
    {0, SourceType::F32, "F32"},
    {1, SourceType::F16, "F16"},
    {30, SourceType::BF16, "BF16"},
    {8, SourceType::Q8_0, "Q8_0"},
    {41, SourceType::Q1_0, "Q1_0"},
    {42, SourceType::Q2_0, "Q2_0"},
    {35, SourceType::TQ2_0, "TQ2_0"},
    {36, SourceType::I2_S, "I2_S"},
    {24, SourceType::I8, "I8"},
    {2, SourceType::UNSUPPORTED, "Q4_0"},
    {3, SourceType::UNSUPPORTED, "Q4_1"},
    {6, SourceType::UNSUPPORTED, "Q5_0"},
    {7, SourceType::UNSUPPORTED, "Q5_1"},
    {9, SourceType::UNSUPPORTED, "Q8_1"},
    {10, SourceType::UNSUPPORTED, "Q2_K"},
    {11, SourceType::UNSUPPORTED, "Q3_K"},
    {12, SourceType::UNSUPPORTED, "Q4_K"},
    {13, SourceType::UNSUPPORTED, "Q5_K"},
    {14, SourceType::UNSUPPORTED, "Q6_K"},
    {15, SourceType::UNSUPPORTED, "Q8_K"},
    {16, SourceType::UNSUPPORTED, "IQ2_XXS"},
    {17, SourceType::UNSUPPORTED, "IQ2_XS"},
    {18, SourceType::UNSUPPORTED, "IQ3_XXS"},
    {19, SourceType::UNSUPPORTED, "IQ1_S"},
    {20, SourceType::UNSUPPORTED, "IQ4_NL"},
    {21, SourceType::UNSUPPORTED, "IQ3_S"},
    {22, SourceType::UNSUPPORTED, "IQ2_S"},
    {23, SourceType::UNSUPPORTED, "IQ4_XS"},
    {25, SourceType::UNSUPPORTED, "I16"},
    {26, SourceType::UNSUPPORTED, "I32"},
    {27, SourceType::UNSUPPORTED, "I64"},
    {28, SourceType::UNSUPPORTED, "F64"},
    {29, SourceType::UNSUPPORTED, "IQ1_M"},
    {34, SourceType::UNSUPPORTED, "TQ1_0"},
    {39, SourceType::UNSUPPORTED, "MXFP4"},
};

TensorType tensor_type(std::uint32_t id) {
  const auto found =
      std::find_if(std::begin(kTensorTypes), std::end(kTensorTypes), [&](const TensorType& t) { return t.id == id; });
  return found != std::end(kTensorTypes) ? *found : TensorType{id, SourceType::UNSUPPORTED, nullptr};
}

// Reads the file front to back; every read is checked against what is left.
class Cursor {
 public:
  Cursor(std::span<const std::uint8_t> bytes, const path& file) : bytes_(bytes), file_(file) {}

  std::uint64_t position() const { return position_; }
  std::uint64_t remaining() const { return bytes_.size() - position_; }
  [[noreturn]] void fail(const std::string& problem) const { throw ConvertError(file_, problem); }

  // `count` bytes, or ConvertError saying that the file ends inside `what`.
  const std::uint8_t* take(std::uint64_t count, const std::string& what) {
    if (count > remaining()) fail("is cut short in " + what);
    const std::uint8_t* at = bytes_.data() + position_;
    position_ += count;
    return at;
  }

  template <typename T>
  T read(const std::string& what) {
    return load_le<T>(take(sizeof(T), what));
  }

  // A count of `items` that take at least `item_bytes` each, refused when
  // the rest of the file cannot hold them (before anything is allocated).
  std::uint64_t count(const std::string& what, const char* items, std::uint64_t item_bytes) {
    const std::uint64_t count = read<std::uint64_t>(what);
    if (item_bytes > 0 && count > remaining() / item_bytes) {
      fail(what + " claims " + std::to_string(count) + " " + items + ", more than the " + std::to_string(remaining()) +
           " bytes left can hold");
    }
    return count;
  }

  std::string string(const std::string& what) {
    const std::uint64_t length = count(what, "bytes", 1);
    const auto* text = reinterpret_cast<const char*>(take(length, what));
    return std::string(text, length);
  }

 private:
  std::span<const std::uint8_t> bytes_;
  const path& file_;
  std::uint64_t position_ = 0;
};

bool read_bool(Cursor& in, const std::string& what) {
  const std::uint8_t flag = in.read<std::uint8_t>(what);
  if (flag > 1) in.fail(what + " holds boolean value " + std::to_string(flag) + " (only 0 and 1 are booleans)");
  return flag == 1;
}

// Any value but a list.
GgufValue read_scalar(Cursor& in, std::uint32_t type, const std::string& what) {
  switch (type) {
    case U8: return std::uint64_t{in.read<std::uint8_t>(what)};
    case I8: return std::int64_t{in.read<std::int8_t>(what)};
    case U16: return std::uint64_t{in.read<std::uint16_t>(what)};
    case I16: return std::int64_t{in.read<std::int16_t>(what)};
    case U32: return std::uint64_t{in.read<std::uint32_t>(what)};
    case I32: return std::int64_t{in.read<std::int32_t>(what)};
    case U64: return in.read<std::uint64_t>(what);
    case I64: return in.read<std::int64_t>(what);
    case F32: return double{in.read<float>(what)};
    case F64: return in.read<double>(what);
    case BOOL: return read_bool(in, what);
    case STRING: return in.string(what);
    default: break;
  }
  in.fail(what + " has unknown value type " + std::to_string(type));
}

// An element of an integer (or boolean) list, as a signed integer.
std::int64_t list_integer(const GgufValue& value, Cursor& in, const std::string& what) {
  if (const bool* flag = std::get_if<bool>(&value)) return *flag ? 1 : 0;
  if (const std::int64_t* signed_value = std::get_if<std::int64_t>(&value)) return *signed_value;
  const std::uint64_t unsigned_value = std::get<std::uint64_t>(value);
  if (unsigned_value > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
    in.fail(what + " holds " + std::to_string(unsigned_value) + " in a list of integers, past the signed 64-bit range");
  }
  return static_cast<std::int64_t>(unsigned_value);
}

template <typename T, typename ReadOne>
std::vector<T> read_list(std::uint64_t count, ReadOne read_one) {
  std::vector<T> values;
  values.reserve(count);
  for (std::uint64_t i = 0; i < count; ++i) values.push_back(read_one());
  return values;
}

// Lists of strings, of numbers, and of integers; booleans become integers 0
// and 1. Lists of lists are refused.
GgufValue read_array(Cursor& in, const std::string& what) {
  const std::uint32_t type = in.read<std::uint32_t>(what);
  if (type == ARRAY) in.fail(what + " is a list of lists, which is not supported");
  if (type >= VALUE_TYPES) in.fail(what + " is a list of unknown value type " + std::to_string(type));
  const std::uint64_t count = in.count(what, "elements", kValueBytes[type]);
  if (type == STRING) return read_list<std::string>(count, [&] { return in.string(what); });
  if (type == F32 || type == F64) {
    return read_list<double>(count, [&] { return std::get<double>(read_scalar(in, type, what)); });
  }
  return read_list<std::int64_t>(count, [&] { return list_integer(read_scalar(in, type, what), in, what); });
}

void read_key_value(Cursor& in, std::uint64_t index, GgufMetadata& metadata) {
  std::string key = in.string("key-value " + std::to_string(index));
  const std::string what = "key '" + key + "'";
  const std::uint32_t type = in.read<std::uint32_t>(what);
  metadata.add(std::move(key), type == ARRAY ? read_array(in, what) : read_scalar(in, type, what));
}

std::uint32_t read_version(Cursor& in) {
  if (in.remaining() < sizeof kMagic || !std::equal(std::begin(kMagic), std::end(kMagic), in.take(sizeof kMagic, ""))) {
    in.fail("is not a GGUF file (it does not start with 'GGUF')");
  }
  const std::uint32_t version = in.read<std::uint32_t>("the header");
  if (version != 2 && version != 3) {
    in.fail("GGUF version " + std::to_string(version) + " is not supported (2 and 3 are)");
  }
  return version;
}

// A tensor as its info lists it: no bytes yet, the offset into the data block.
struct TensorInfo {
  SourceTensor tensor;
  std::uint32_t type_id = 0;
  std::uint64_t offset = 0;
};

TensorInfo read_tensor_info(Cursor& in, std::uint64_t index, const path& file) {
  TensorInfo info;
  SourceTensor& tensor = info.tensor;
  tensor.file = file;
  tensor.name = in.string("tensor info " + std::to_string(index));
  const std::string what = "tensor " + tensor.name;
  const std::uint32_t dims = in.read<std::uint32_t>(what);
  if (dims == 0 || dims > kMaxDims) {
    in.fail(what + " has " + std::to_string(dims) + " dimensions (1 to " + std::to_string(kMaxDims) + " are read)");
  }
  tensor.shape.resize(dims);
  // The file lists the extents innermost first.
  for (std::uint32_t d = 0; d < dims; ++d) tensor.shape[dims - 1 - d] = in.read<std::uint64_t>(what);
  info.type_id = in.read<std::uint32_t>(what);
  info.offset = in.read<std::uint64_t>(what);
  return info;
}

std::uint64_t alignment_of(const GgufMetadata& metadata) {
  const std::uint64_t alignment = metadata.get_uint("general.alignment").value_or(kDefaultAlignment);
  if (!std::has_single_bit(alignment)) {
    throw ConvertError(metadata.file(),
                       "key 'general.alignment' must be a power of two, not " + std::to_string(alignment));
  }
  return alignment;
}

// Refuses extents that overflow and rows that are no whole number of blocks.
// An UNSUPPORTED type has no known layout, so only its extents are checked.
void check_shape(const SourceTensor& tensor) {
  if (size_overflowed(tensor.elements())) {
    throw ConvertError(tensor.file, "tensor " + tensor.name + ": its extents multiply past 2^64");
  }
  const std::uint64_t block_values = source_storage(tensor.type).values;
  if (block_values > 0 && tensor.cols() % block_values != 0) {
    throw ConvertError(tensor.file, "tensor " + tensor.name + ": rows of " + std::to_string(tensor.cols()) +
                                        " values are not whole " + tensor.type_name + " blocks of " +
                                        std::to_string(block_values));
  }
}

// The bytes of a tensor in the data block; an UNSUPPORTED one has none, but
// its offset must still be aligned and inside the block.
std::span<const std::uint8_t> tensor_data(const SourceTensor& tensor, std::uint64_t offset,
                                          std::span<const std::uint8_t> data, std::uint64_t alignment) {
  const std::string what = "tensor " + tensor.name + ": offset " + std::to_string(offset);
  if (offset % alignment != 0) {
    throw ConvertError(tensor.file, what + " is not a multiple of the alignment " + std::to_string(alignment));
  }
  const std::optional<std::uint64_t> size = source_byte_size(tensor.type, tensor.shape);
  const bool unsupported = tensor.type == SourceType::UNSUPPORTED;
  if (!unsupported && !size) throw ConvertError(tensor.file, "tensor " + tensor.name + ": its size passes 2^64 bytes");
  const std::uint64_t bytes = size.value_or(0);
  if (size_add(offset, bytes) > data.size()) {
    const std::string reach = unsupported ? " is" : " and size " + std::to_string(bytes) + " reach";
    throw ConvertError(tensor.file, what + reach + " past the " + std::to_string(data.size()) + "-byte data block");
  }
  return unsupported ? std::span<const std::uint8_t>() : data.subspan(offset, bytes);
}

SourceTensor placed(TensorInfo info, std::span<const std::uint8_t> data, std::uint64_t alignment) {
  SourceTensor& tensor = info.tensor;
  const TensorType type = tensor_type(info.type_id);
  tensor.type = type.type;
  tensor.type_name = type.name ? type.name : "type " + std::to_string(info.type_id);
  check_shape(tensor);
  tensor.data = tensor_data(tensor, info.offset, data, alignment);
  return std::move(tensor);
}

const char* kind_of(const GgufValue& value) {
  static constexpr const char* kKinds[] = {
      "an unsigned integer", "a signed integer",   "a real number",         "a boolean", "a string",
      "a list of strings",   "a list of integers", "a list of real numbers"};
  return kKinds[value.index()];
}

[[noreturn]] void wrong_kind(const path& file, std::string_view key, const GgufValue& value, const char* expected) {
  throw ConvertError(file, "key '" + std::string(key) + "' is " + kind_of(value) + ", not " + expected);
}

// The value of `key` as a T: nullptr when absent, ConvertError when of another kind.
template <typename T>
const T* held(const GgufMetadata& metadata, std::string_view key, const char* expected) {
  const GgufValue* value = metadata.find(key);
  if (!value) return nullptr;
  if (const T* typed = std::get_if<T>(value)) return typed;
  wrong_kind(metadata.file(), key, *value, expected);
}

template <typename T>
std::optional<T> held_copy(const GgufMetadata& metadata, std::string_view key, const char* expected) {
  const T* value = held<T>(metadata, key, expected);
  return value ? std::optional<T>(*value) : std::nullopt;
}

}  // namespace

void GgufMetadata::add(std::string key, GgufValue value) {
  const auto [at, inserted] = values_.try_emplace(std::move(key), std::move(value));
  if (!inserted) throw ConvertError(file_, "key '" + at->first + "' appears twice");
}

const GgufValue* GgufMetadata::find(std::string_view key) const {
  const auto found = values_.find(key);
  return found == values_.end() ? nullptr : &found->second;
}

std::optional<std::uint64_t> GgufMetadata::get_uint(std::string_view key) const {
  const GgufValue* value = find(key);
  if (!value) return std::nullopt;
  if (const std::uint64_t* unsigned_value = std::get_if<std::uint64_t>(value)) return *unsigned_value;
  const std::int64_t* signed_value = std::get_if<std::int64_t>(value);
  if (!signed_value) wrong_kind(file_, key, *value, "an unsigned integer");
  if (*signed_value < 0) {
    throw ConvertError(
        file_, "key '" + std::string(key) + "' is " + std::to_string(*signed_value) + ", not an unsigned integer");
  }
  return static_cast<std::uint64_t>(*signed_value);
}

std::optional<double> GgufMetadata::get_float(std::string_view key) const {
  const GgufValue* value = find(key);
  if (!value) return std::nullopt;
  if (const double* real = std::get_if<double>(value)) return *real;
  if (const std::uint64_t* whole = std::get_if<std::uint64_t>(value)) return static_cast<double>(*whole);
  if (const std::int64_t* signed_whole = std::get_if<std::int64_t>(value)) return static_cast<double>(*signed_whole);
  wrong_kind(file_, key, *value, "a number");
}

std::optional<bool> GgufMetadata::get_bool(std::string_view key) const {
  return held_copy<bool>(*this, key, "a boolean");
}

std::optional<std::string> GgufMetadata::get_string(std::string_view key) const {
  return held_copy<std::string>(*this, key, "a string");
}

const std::vector<std::string>* GgufMetadata::get_strings(std::string_view key) const {
  return held<std::vector<std::string>>(*this, key, "a list of strings");
}

const std::vector<std::int64_t>* GgufMetadata::get_ints(std::string_view key) const {
  return held<std::vector<std::int64_t>>(*this, key, "a list of integers");
}

GgufContents parse_gguf(std::span<const std::uint8_t> bytes, const path& file) {
  Cursor in(bytes, file);
  GgufContents contents{read_version(in), GgufMetadata(file), {}};
  const std::uint64_t tensor_count = in.count("the header", "tensors", kMinTensorInfoBytes);
  const std::uint64_t key_value_count = in.count("the header", "key-values", kMinKeyValueBytes);
  for (std::uint64_t i = 0; i < key_value_count; ++i) read_key_value(in, i, contents.metadata);
  std::vector<TensorInfo> infos;
  for (std::uint64_t i = 0; i < tensor_count; ++i) infos.push_back(read_tensor_info(in, i, file));
  const std::uint64_t alignment = alignment_of(contents.metadata);
  const std::uint64_t data_start = size_round_up(in.position(), alignment);
  if (data_start > bytes.size()) {
    in.fail("is cut short before its data block, which starts at byte " + std::to_string(data_start));
  }
  for (TensorInfo& info : infos) contents.tensors.add(placed(std::move(info), bytes.subspan(data_start), alignment));
  return contents;
}

GgufCheckpoint read_gguf(const path& file) {
  MappedFile mapped(file);
  GgufContents contents = parse_gguf(mapped.bytes(), file);
  return {std::move(mapped), std::move(contents)};
}

}  // namespace quorvel::convert
