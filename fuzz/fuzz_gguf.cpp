// The GGUF reader: the container and its metadata, every key through every
// accessor, then the first and last rows of a few tensors as the converter
// reads them. Input: a whole ".gguf" file.
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz_support.h"
#include "source_rows.h"
#include "tools/convert/convert_error.h"
#include "tools/convert/gguf_file.h"

using namespace quorvel;

namespace {

void read_every_key(const convert::GgufMetadata& metadata) {
  for (const auto& entry : metadata) {
    const std::string& key = entry.first;
    fuzz::refusable([&] { static_cast<void>(metadata.get_uint(key)); });
    fuzz::refusable([&] { static_cast<void>(metadata.get_float(key)); });
    fuzz::refusable([&] { static_cast<void>(metadata.get_bool(key)); });
    fuzz::refusable([&] { static_cast<void>(metadata.get_string(key)); });
    fuzz::refusable([&] { static_cast<void>(metadata.get_strings(key)); });
    fuzz::refusable([&] { static_cast<void>(metadata.get_ints(key)); });
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::quiet_engine_messages();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::refusable([&] {
    const convert::GgufContents gguf = convert::parse_gguf({data, size}, "fuzz.gguf");
    read_every_key(gguf.metadata);
    fuzz::read_first_rows(gguf.tensors, 0.0);
  });
  return 0;
}
