// The summary of a load run: what came back, how fast, and whether that was acceptable.
#pragma once

#include <map>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "host/serve_load/request_result.h"

namespace quorvel::serve_load {

struct Quantiles {
  std::optional<double> p50;
  std::optional<double> p95;
};

struct LoadSummary {
  std::map<std::string, int> outcomes;  // requests by outcome ("200", "500", ...)
  int requests = 0;
  int failed = 0;
  // Times in seconds, of the requests that succeeded.
  Quantiles streamed_first_token;
  Quantiles first_token;
  Quantiles latency;
  // Tokens of the requests that succeeded.
  long prompt_tokens = 0;
  long cached_tokens = 0;  // of the prompts, read from the server's cache
  long completion_tokens = 0;
  double wall_seconds = 0;
  std::vector<std::string> first_errors;  // the first few distinct failure messages
};

LoadSummary summarize(const std::vector<RequestResult>& results, double wall_seconds);

void print_summary(const LoadSummary& summary, std::ostream& out);

// Every request succeeded; or, when failures are expected, every one that failed got a 500.
bool acceptable(const LoadSummary& summary, bool expect_failures);

}  // namespace quorvel::serve_load
