// The init-config block as start-up reads it: the block protocol, the
// parser, the format and start-up refusals, and the memory estimate. Every
// further block of the input is parsed as a request, as the request loop
// would, without a model. Input: text.
#include <cstddef>
#include <cstdint>
#include <exception>
#include <sstream>
#include <string>

#include "engine/generation_request.h"
#include "engine/init_config_parser.h"
#include "engine/key_value_block.h"
#include "fuzz_support.h"
#include "models/model_memory.h"
#include "models/model_requirements.h"
#include "runtime/thread_pool.h"

using namespace quorvel;

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::quiet_engine_messages();
  fuzz::set_fuzz_threads();
  return 0;
}

namespace {

// The estimate saturates: no part may wrap below another, and a larger pool
// never needs less.
void check_estimate(const InitConfig& config) {
  const ModelMemory one = estimate_model_memory(config, 1);
  const ModelMemory here = estimate_model_memory(config, thread_count());
  const ModelMemory many = estimate_model_memory(config, kMaxThreads);
  for (const ModelMemory* m : {&one, &here, &many}) {
    if (m->total() < m->weights || m->total() < m->caches || m->total() < m->buffers) __builtin_trap();
  }
  if (many.total() < one.total()) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::istringstream in(std::string(reinterpret_cast<const char*>(data), size));
  KeyValueBlock block;
  if (read_block(in, block) < 1) return 0;
  InitConfig config;
  try {
    config = parse_init_config(block);
  } catch (const std::exception&) {
    return 0;  // "Error parsing init config: ..."
  }
  if (unsupported_format_message(config)) return 0;
  check_estimate(config);
  (void)start_up_refusal(config, fuzz::kMemoryCap);
  (void)start_up_refusal(config, kSizeOverflow);

  std::ostringstream warnings;
  while (read_block(in, block) >= 1) {
    try {
      (void)clamp_sampling(parse_request(block, warnings));
    } catch (const std::exception&) {
      return 0;  // "Error parsing request: ..." ends the loop
    }
  }
  return 0;
}
