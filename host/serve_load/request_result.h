// What one request came to, as the load report counts it.
#pragma once

#include <string>

#include "host/serve_load/token_usage.h"

namespace quorvel::serve_load {

struct RequestResult {
  // The HTTP status ("200", "500", ...; a stream that sent an error event counts as "500"), or what
  // went wrong where no status applies ("no connection: ...", "stream ended before [DONE]").
  std::string outcome;
  std::string error;  // the server's error message, or the transport's, when not "200"
  bool streamed = false;
  double first_token_seconds = 0;  // streamed: the first content chunk; else the whole response
  double total_seconds = 0;
  TokenUsage usage;

  bool succeeded() const { return outcome == "200"; }
};

}  // namespace quorvel::serve_load
