// How quorvel-serve-load loads a server.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "host/serve_load/request_mix.h"

namespace quorvel::serve_load {

struct LoadOptions {
  std::string url = "http://127.0.0.1:8080";
  int clients = 8;
  int requests = 25;  // per client
  std::string api_key;
  std::uint64_t seed = 1;
  MixRanges ranges;
  std::chrono::seconds timeout{600};
  bool expect_failures = false;  // 500s are allowed (an engine is being killed on purpose)
};

}  // namespace quorvel::serve_load
