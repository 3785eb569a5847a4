// The safetensors reader: the header length, the JSON header and every
// tensor's dtype, shape and byte range, then the first and last rows of a few
// tensors as the converter reads them. Input: a whole ".safetensors" file.
#include <cstddef>
#include <cstdint>

#include "fuzz_support.h"
#include "source_rows.h"
#include "tools/convert/safetensors_file.h"

using namespace quorvel;

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::quiet_engine_messages();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  convert::TensorSet tensors;
  fuzz::refusable([&] {
    convert::parse_safetensors({data, size}, "fuzz.safetensors", tensors);
    fuzz::read_first_rows(tensors, 1.0);
  });
  return 0;
}
