#include "tools/convert/gguf_file.h"

#include <gtest/gtest.h>

#include <bit>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "support/byte_writer.h"
#include "tools/convert/checkpoint_files.h"
#include "tools/convert/convert_error.h"
#include "tools/tool_test_files.h"

namespace quorvel::convert {
namespace {

using namespace quorvel::convert::testing;
using quorvel::testing::ByteWriter;

constexpr std::uint32_t kQ4_K = 12, kI8 = 24, kUnknownType = 99;

std::span<const std::uint8_t> span_of(const std::string& bytes) {
  return {reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()};
}

GgufContents parse(const std::string& bytes) { return parse_gguf(span_of(bytes), "model.gguf"); }

// The message parsing `bytes` is refused with.
std::string refusal(const std::string& bytes) {
  try {
    parse(bytes);
  } catch (const ConvertError& error) {
    return error.what();
  }
  return "(accepted)";
}

std::string bytes_of(ByteWriter& out) { return out.bytes(); }

// Magic, version 3 and the two counts: 24 bytes.
ByteWriter header(std::uint64_t tensors, std::uint64_t key_values) {
  ByteWriter out;
  out.text("GGUF").u32(3).u64(tensors).u64(key_values);
  return out;
}

// One tensor "t" with its extents as the file stores them (innermost
// first), then `data` as the data block at the default alignment.
std::string one_tensor(const std::vector<std::uint64_t>& extents, std::uint32_t type, std::uint64_t offset,
                       const std::string& data) {
  ByteWriter out = header(1, 0);
  out.u64(1).text("t").u32(static_cast<std::uint32_t>(extents.size()));
  for (const std::uint64_t extent : extents) out.u64(extent);
  std::string file = out.u32(type).u64(offset).bytes();
  file.resize((file.size() + 31) / 32 * 32, '\0');
  return file + data;
}

// `count` bytes that differ from those of another seed.
std::string pattern(std::size_t count, int seed) {
  std::string bytes(count, '\0');
  for (std::size_t i = 0; i < count; ++i) bytes[i] = static_cast<char>(i * 7 + static_cast<std::size_t>(seed) * 31);
  return bytes;
}

std::string list(std::uint32_t element_type, std::uint64_t count, const std::string& elements) {
  return ByteWriter().u32(element_type).u64(count).text(elements).bytes();
}

// Every value kind the format has, one key each.
GgufBuilder every_kind() {
  GgufBuilder gguf;
  gguf.raw("kind.u8", GGUF_U8, "\xC8")
      .raw("kind.i8", GGUF_I8, "\xFD")
      .raw("kind.u16", GGUF_U16, ByteWriter().u16(65535).bytes())
      .raw("kind.i16", GGUF_I16, ByteWriter().u16(0xFFFE).bytes())
      .u32("kind.u32", 4000000000u)
      .raw("kind.i32", GGUF_I32, ByteWriter().i32(7).bytes())
      .u64("kind.u64", 1ull << 40)
      .raw("kind.i64", GGUF_I64, ByteWriter().u64(static_cast<std::uint64_t>(-5)).bytes())
      .f32("kind.f32", 0.5f)
      .raw("kind.f64", GGUF_F64, ByteWriter().u64(std::bit_cast<std::uint64_t>(1e-6)).bytes())
      .boolean("kind.bool", true)
      .str("kind.string", "qwen3")
      .strings("kind.strings", {"a b", "", "\xC4\xA0\xC4\xA0"})
      .i32s("kind.i32s", {-1, 0, 7})
      .raw("kind.u8s", GGUF_ARRAY, list(GGUF_U8, 2, "\x01\xFF"))
      .raw("kind.u64s", GGUF_ARRAY, list(GGUF_U64, 1, ByteWriter().u64(0x7FFFFFFFFFFFFFFFull).bytes()))
      .raw("kind.bools", GGUF_ARRAY, list(GGUF_BOOL, 2, std::string("\x01\x00", 2)))
      .f32s("kind.f32s", {0.25f, -1.5f})
      .raw("kind.f64s", GGUF_ARRAY, list(GGUF_F64, 1, ByteWriter().u64(std::bit_cast<std::uint64_t>(2.5)).bytes()))
      .raw("kind.i16s", GGUF_ARRAY, list(GGUF_I16, 0, ""));
  return gguf;
}

// One tensor of a type the converter lists but cannot read, one of an
// unknown type, then one of every type it reads (the last one ends the file).
std::vector<TensorBytes> tensors_of_every_type() {
  return {
      {"q4_k", "", {1, 256}, pattern(144, 10), kQ4_K},   {"mystery", "", {3}, pattern(7, 11), kUnknownType},
      {"f32", "", {2, 3}, pattern(24, 1), GGML_F32},     {"f16", "", {2, 1, 3}, pattern(12, 2), GGML_F16},
      {"bf16", "", {4}, pattern(8, 3), GGML_BF16},       {"q8_0", "", {2, 32}, pattern(68, 4), GGML_Q8_0},
      {"q1_0", "", {1, 128}, pattern(18, 5), GGML_Q1_0}, {"q2_0", "", {1, 64}, pattern(18, 6), GGML_Q2_0},
      {"tq2_0", "", {1, 256}, pattern(66, 7), GGML_TQ2_0}, {"i2_s", "", {2, 128}, pattern(96, 8), GGML_I2_S},
      {"i8", "", {5}, pattern(5, 9), kI8},
  };
}

TEST(GgufFile, ReadsMetadataOfEveryValueKind) {
  for (const std::uint32_t version : {2u, 3u}) {
    const GgufContents gguf = parse(every_kind().bytes(version));
    const GgufMetadata& meta = gguf.metadata;
    EXPECT_EQ(gguf.version, version);
    EXPECT_EQ(std::distance(meta.begin(), meta.end()), 20);
    EXPECT_EQ(meta.get_uint("kind.u8"), 200u);
    EXPECT_EQ(std::get<std::uint64_t>(*meta.find("kind.u16")), 65535u);
    EXPECT_EQ(std::get<std::int64_t>(*meta.find("kind.i16")), -2);
    EXPECT_EQ(meta.get_uint("kind.u32"), 4000000000u);
    EXPECT_EQ(meta.get_uint("kind.i32"), 7u);  // a signed value that is not negative
    EXPECT_EQ(meta.get_uint("kind.u64"), 1ull << 40);
    EXPECT_EQ(meta.get_float("kind.i8"), -3.0);
    EXPECT_EQ(meta.get_float("kind.i64"), -5.0);
    EXPECT_EQ(meta.get_float("kind.u64"), 1099511627776.0);
    EXPECT_EQ(meta.get_float("kind.f32"), 0.5);
    EXPECT_EQ(meta.get_float("kind.f64"), 1e-6);
    EXPECT_EQ(meta.get_bool("kind.bool"), true);
    EXPECT_EQ(meta.get_string("kind.string"), "qwen3");
    EXPECT_EQ(*meta.get_strings("kind.strings"), (std::vector<std::string>{"a b", "", "\xC4\xA0\xC4\xA0"}));
    EXPECT_EQ(*meta.get_ints("kind.i32s"), (std::vector<std::int64_t>{-1, 0, 7}));
    EXPECT_EQ(*meta.get_ints("kind.u8s"), (std::vector<std::int64_t>{1, 255}));
    EXPECT_EQ(*meta.get_ints("kind.u64s"), (std::vector<std::int64_t>{std::numeric_limits<std::int64_t>::max()}));
    EXPECT_EQ(*meta.get_ints("kind.bools"), (std::vector<std::int64_t>{1, 0}));
    EXPECT_EQ(*meta.get_ints("kind.i16s"), std::vector<std::int64_t>{});
    EXPECT_EQ(std::get<std::vector<double>>(*meta.find("kind.f32s")), (std::vector<double>{0.25, -1.5}));
    EXPECT_EQ(std::get<std::vector<double>>(*meta.find("kind.f64s")), std::vector<double>{2.5});
    EXPECT_EQ(meta.get_uint("absent"), std::nullopt);
    EXPECT_EQ(meta.get_strings("absent"), nullptr);
  }
}

TEST(GgufFile, AccessorsRefuseOtherKindsNamingTheKey) {
  GgufMetadata meta("model.gguf");
  meta.add("negative", std::int64_t{-3});
  meta.add("text", std::string("x"));
  meta.add("flag", true);
  meta.add("count", std::uint64_t{2});
  meta.add("names", std::vector<std::string>{"a"});
  meta.add("ids", std::vector<std::int64_t>{1});
  meta.add("reals", std::vector<double>{1.0});
  const auto message = [](auto read) -> std::string {
    try {
      read();
    } catch (const ConvertError& error) {
      return error.what();
    }
    return "(accepted)";
  };
  EXPECT_EQ(message([&] { meta.get_uint("negative"); }), "model.gguf: key 'negative' is -3, not an unsigned integer");
  EXPECT_EQ(message([&] { meta.get_uint("text"); }), "model.gguf: key 'text' is a string, not an unsigned integer");
  EXPECT_EQ(message([&] { meta.get_float("flag"); }), "model.gguf: key 'flag' is a boolean, not a number");
  EXPECT_EQ(message([&] { meta.get_bool("count"); }), "model.gguf: key 'count' is an unsigned integer, not a boolean");
  EXPECT_EQ(message([&] { meta.get_string("names"); }), "model.gguf: key 'names' is a list of strings, not a string");
  EXPECT_EQ(message([&] { meta.get_strings("ids"); }),
            "model.gguf: key 'ids' is a list of integers, not a list of strings");
  EXPECT_EQ(message([&] { meta.get_ints("reals"); }),
            "model.gguf: key 'reals' is a list of real numbers, not a list of integers");
  EXPECT_EQ(message([&] { meta.add("count", std::uint64_t{3}); }), "model.gguf: key 'count' appears twice");
}

TEST(GgufFile, ListsTensorsOutermostFirstAtTheirAlignedBytes) {
  GgufBuilder builder;
  builder.u32("general.alignment", 64);
  for (const TensorBytes& t : tensors_of_every_type()) builder.tensor(t);
  const std::string file = builder.bytes(2, 64);
  const GgufContents gguf = parse(file);
  ASSERT_EQ(gguf.tensors.size(), tensors_of_every_type().size());
  const char* const names[] = {"Q4_K", "type 99", "F32", "F16", "BF16", "Q8_0", "Q1_0", "Q2_0", "TQ2_0", "I2_S", "I8"};
  std::size_t i = 0;
  for (const TensorBytes& expected : tensors_of_every_type()) {
    SCOPED_TRACE(expected.name);
    const SourceTensor& t = *gguf.tensors.find(expected.name);
    EXPECT_EQ(t.type_name, names[i++]);
    EXPECT_EQ(t.shape, expected.shape);
    EXPECT_EQ(t.file, "model.gguf");
    if (t.type == SourceType::UNSUPPORTED) {
      EXPECT_TRUE(t.data.empty());
      continue;
    }
    EXPECT_EQ(std::string(t.data.begin(), t.data.end()), expected.bytes);
    EXPECT_EQ((t.data.data() - span_of(file).data()) % 64, 0);
  }
  EXPECT_EQ(gguf.tensors.find("q1_0")->type, SourceType::Q1_0);
  EXPECT_EQ(gguf.tensors.find("i2_s")->type, SourceType::I2_S);
  EXPECT_EQ(gguf.tensors.find("mystery")->type, SourceType::UNSUPPORTED);
}

TEST(GgufFile, ReversesStoredExtentsAndMapsWholeFiles) {
  const GgufContents crafted = parse(one_tensor({3, 2}, GGML_F32, 0, pattern(24, 1)));
  EXPECT_EQ(crafted.tensors.find("t")->shape, (std::vector<std::uint64_t>{2, 3}));

  tools::testing::TempDir dir;
  const std::string bytes = every_kind().tensor({"w", "", {2, 32}, pattern(68, 2), GGML_Q8_0}).bytes();
  write_bytes(dir.path() / "model.gguf", bytes);
  const GgufCheckpoint checkpoint = read_gguf(dir.path() / "model.gguf");
  const SourceTensor& w = *checkpoint.contents.tensors.find("w");
  EXPECT_EQ(std::string(w.data.begin(), w.data.end()), pattern(68, 2));
  EXPECT_EQ(w.file, dir.path() / "model.gguf");
  EXPECT_EQ(checkpoint.contents.metadata.get_string("kind.string"), "qwen3");
  EXPECT_THROW(read_gguf(dir.path() / "absent.gguf"), ConvertError);
}

TEST(GgufFile, RefusesBrokenHeadersAndMetadata) {
  const std::uint64_t huge = 1ull << 60;
  const struct {
    const char* what;
    std::string bytes;
    std::string message;
  } cases[] = {
      {"bad magic", "GGUG" + every_kind().bytes().substr(4), "is not a GGUF file (it does not start with 'GGUF')"},
      {"two bytes", "GG", "is not a GGUF file (it does not start with 'GGUF')"},
      {"version 1", every_kind().bytes(1), "GGUF version 1 is not supported (2 and 3 are)"},
      {"version 4", every_kind().bytes(4), "GGUF version 4 is not supported (2 and 3 are)"},
      {"huge tensor count", header(huge, 0).bytes(),
       "the header claims 1152921504606846976 tensors, more than the 8 bytes left can hold"},
      {"huge key-value count", header(0, huge).bytes(),
       "the header claims 1152921504606846976 key-values, more than the 0 bytes left can hold"},
      {"huge key length", bytes_of(header(0, 1).u64(huge).text("abcdefgh")),
       "key-value 0 claims 1152921504606846976 bytes, more than the 8 bytes left can hold"},
      {"huge string value", bytes_of(header(0, 1).u64(1).text("k").u32(GGUF_STRING).u64(huge)),
       "key 'k' claims 1152921504606846976 bytes, more than the 0 bytes left can hold"},
      {"huge list", bytes_of(header(0, 1).u64(1).text("k").u32(GGUF_ARRAY).text(list(GGUF_STRING, huge, ""))),
       "key 'k' claims 1152921504606846976 elements, more than the 0 bytes left can hold"},
      {"list longer than its bytes",
       bytes_of(header(0, 1).u64(1).text("k").u32(GGUF_ARRAY).text(list(GGUF_U32, 5, pattern(16, 0)))),
       "key 'k' claims 5 elements, more than the 16 bytes left can hold"},
      {"unknown value type", GgufBuilder().raw("k", 13, "").bytes(), "key 'k' has unknown value type 13"},
      {"unknown element type", GgufBuilder().raw("k", GGUF_ARRAY, list(13, 0, "")).bytes(),
       "key 'k' is a list of unknown value type 13"},
      {"nested list", GgufBuilder().raw("k", GGUF_ARRAY, list(GGUF_ARRAY, 1, list(GGUF_U8, 0, ""))).bytes(),
       "key 'k' is a list of lists, which is not supported"},
      {"boolean 2", GgufBuilder().raw("k", GGUF_BOOL, "\x02").bytes(),
       "key 'k' holds boolean value 2 (only 0 and 1 are booleans)"},
      {"integer list past i64",
       GgufBuilder().raw("k", GGUF_ARRAY, list(GGUF_U64, 1, ByteWriter().u64(1ull << 63).bytes())).bytes(),
       "key 'k' holds 9223372036854775808 in a list of integers, past the signed 64-bit range"},
      {"duplicate key", GgufBuilder().u32("k", 1).u32("k", 2).bytes(), "key 'k' appears twice"},
      {"zero alignment", GgufBuilder().u32("general.alignment", 0).bytes(),
       "key 'general.alignment' must be a power of two, not 0"},
      {"alignment 24", GgufBuilder().u32("general.alignment", 24).bytes(),
       "key 'general.alignment' must be a power of two, not 24"},
      {"text alignment", GgufBuilder().str("general.alignment", "32").bytes(),
       "key 'general.alignment' is a string, not an unsigned integer"},
      {"no data block", header(0, 0).bytes(), "is cut short before its data block, which starts at byte 32"},
  };
  for (const auto& c : cases) EXPECT_EQ(refusal(c.bytes), "model.gguf: " + c.message) << c.what;
}

TEST(GgufFile, RefusesTensorsThatDoNotFit) {
  const std::uint64_t half_range = 1ull << 32;
  const struct {
    const char* what;
    std::string bytes;
    std::string message;
  } cases[] = {
      {"no dimensions", one_tensor({}, GGML_F32, 0, ""), "tensor t has 0 dimensions (1 to 4 are read)"},
      {"five dimensions", one_tensor({1, 1, 1, 1, 1}, GGML_F32, 0, pattern(4, 0)),
       "tensor t has 5 dimensions (1 to 4 are read)"},
      {"extents overflow", one_tensor({half_range, half_range}, GGML_F32, 0, ""),
       "tensor t: its extents multiply past 2^64"},
      {"bytes overflow", one_tensor({1ull << 62}, GGML_F32, 0, ""), "tensor t: its size passes 2^64 bytes"},
      {"partial Q8_0 block", one_tensor({48, 2}, GGML_Q8_0, 0, pattern(102, 0)),
       "tensor t: rows of 48 values are not whole Q8_0 blocks of 32"},
      {"partial I2_S group", one_tensor({64, 2}, GGML_I2_S, 0, pattern(64, 0)),
       "tensor t: rows of 64 values are not whole I2_S blocks of 128"},
      {"partial TQ2_0 block", one_tensor({128}, GGML_TQ2_0, 0, pattern(66, 0)),
       "tensor t: rows of 128 values are not whole TQ2_0 blocks of 256"},
      {"unaligned offset", one_tensor({4}, GGML_F32, 8, pattern(32, 0)),
       "tensor t: offset 8 is not a multiple of the alignment 32"},
      {"unaligned unsupported type", one_tensor({256}, kQ4_K, 16, pattern(160, 0)),
       "tensor t: offset 16 is not a multiple of the alignment 32"},
      {"data past the end", one_tensor({8}, GGML_F32, 0, pattern(16, 0)),
       "tensor t: offset 0 and size 32 reach past the 16-byte data block"},
      {"offset past the end", one_tensor({4}, GGML_F32, 64, pattern(16, 0)),
       "tensor t: offset 64 and size 16 reach past the 16-byte data block"},
      {"offset near 2^64", one_tensor({4}, GGML_F32, 0ull - 32, pattern(16, 0)),
       "tensor t: offset 18446744073709551584 and size 16 reach past the 16-byte data block"},
      {"unsupported type past the end", one_tensor({256}, kQ4_K, 64, pattern(32, 0)),
       "tensor t: offset 64 is past the 32-byte data block"},
      {"duplicate tensor",
       GgufBuilder().tensor({"w", "", {4}, pattern(16, 0), GGML_F32}).tensor({"w", "", {2}, pattern(8, 1), GGML_F32})
           .bytes(),
       "tensor w appears twice"},
  };
  for (const auto& c : cases) EXPECT_EQ(refusal(c.bytes), "model.gguf: " + c.message) << c.what;
}

TEST(GgufFile, RefusesEveryTruncation) {
  GgufBuilder builder = every_kind();
  for (const TensorBytes& t : tensors_of_every_type()) builder.tensor(t);
  const std::string file = builder.bytes();
  ASSERT_NO_THROW(parse(file));
  for (std::size_t length = 0; length < file.size(); ++length) {
    EXPECT_THROW(parse(file.substr(0, length)), ConvertError) << "cut at " << length;
  }
  // Without tensors, and late in the metadata, the counts claim no more
  // than the bytes that are left.
  const std::string metadata = every_kind().bytes();
  const auto cut_metadata_at = [&](std::size_t length) { return refusal(metadata.substr(0, length)); };
  EXPECT_EQ(cut_metadata_at(20), "model.gguf: is cut short in the header");
  const std::size_t last_key = metadata.find("kind.i16s");
  EXPECT_EQ(cut_metadata_at(last_key - 3), "model.gguf: is cut short in key-value 19");
  EXPECT_EQ(cut_metadata_at(last_key + 9 + 4 + 2), "model.gguf: is cut short in key 'kind.i16s'");
  const std::size_t string_value = metadata.find("qwen3");
  EXPECT_EQ(cut_metadata_at(string_value + 2),
            "model.gguf: key 'kind.string' claims 5 bytes, more than the 2 bytes left can hold");
  const auto cut_at = [&](std::size_t length) { return refusal(file.substr(0, length)); };
  EXPECT_EQ(cut_at(100), "model.gguf: the header claims 11 tensors, more than the 84 bytes left can hold");
  const std::size_t first_info = file.find(std::string("\x04\0\0\0\0\0\0\0q4_k", 12));
  EXPECT_EQ(cut_at(first_info + 4), "model.gguf: is cut short in tensor info 0");
  EXPECT_EQ(cut_at(first_info + 12 + 2), "model.gguf: is cut short in tensor q4_k");
  // The data block: 144, 7, 24, 12, 8, 68, 18, 18, 66 and 96 bytes at multiples of 32 put i8 at 640.
  EXPECT_EQ(cut_at(file.size() - 1), "model.gguf: tensor i8: offset 640 and size 5 reach past the 644-byte data block");
}

}  // namespace
}  // namespace quorvel::convert
