// The rotary tables: the header check, the table reader and one rotation.
// Input: byte 0 head_dim, byte 1 max_context, byte 2 heads (1 + b % 4),
// byte 3 token rows (b % 8), byte 4 start position; the rest is "rope.cache".
#include <cstddef>
#include <cstdint>
#include <exception>
#include <sstream>
#include <string>

#include "fuzz_support.h"
#include "io/rope_header.h"
#include "layers/rotary_embedding.h"
#include "runtime/aligned_buffer.h"
#include "runtime/bf16.h"

using namespace quorvel;

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::quiet_engine_messages();
  fuzz::set_fuzz_threads();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::ByteReader in(data, size);
  const std::uint64_t head_dim = in.byte();
  const std::uint64_t max_context = in.byte();
  const std::uint64_t heads = 1 + in.byte() % 4;
  const std::uint64_t rows = in.byte() % 8;
  const std::uint64_t start = in.byte();
  std::istringstream stream(in.rest());
  if (!check_rope_header(stream, kRopeCacheVersion)) return 0;
  try {
    const layers::RotaryEmbedding rope(stream, head_dim, max_context);
    // Exactly the rows the rotation may touch (aligned, as the engine's
    // buffers are), so that a step past them is seen.
    const std::uint64_t count = heads * head_dim * rows;
    AlignedPtr<bf16> x = allocate_aligned_elements<bf16>(count);
    for (std::uint64_t i = 0; i < count; ++i) x[i] = narrow_nearest_even(static_cast<float>(i % 7) - 3.0f);
    rope.apply(x.get(), heads, rows, start);
  } catch (const std::exception& e) {
    // Short tables ("Failed to read RoPE ... values") and positions past them.
    fuzz::note(std::string("refused: ") + e.what());
  }
  return 0;
}
