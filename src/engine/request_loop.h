// The request loop: each request block on standard input becomes generated
// token ids on standard output, one flushed line per token, then the number
// of filled cache positions that the host sends back as "kv_position".
#pragma once

#include <cstdint>
#include <istream>
#include <ostream>
#include <vector>

#include "config/init_config.h"
#include "engine/generation_request.h"
#include "sampling/sampler.h"

namespace quorvel {

// What the loop needs from a model: the forward pass in two halves.
class TokenModel {
 public:
  virtual ~TokenModel() = default;
  // Sets every layer's cache write position.
  virtual void set_position(std::uint64_t position) = 0;
  // Embeds n tokens, runs every layer over them at the current position and
  // normalises the output rows.
  virtual void forward(const std::int64_t* tokens, std::uint64_t n) = 0;
  // Samples the next token from the last row of the latest forward.
  virtual std::int64_t sample(const std::int64_t* history, std::uint64_t history_len,
                              const SamplingParams& params) = 0;
};

class RequestLoop {
 public:
  RequestLoop(TokenModel& model, const InitConfig& config, std::istream& in, std::ostream& out,
              std::ostream& err);

  // Serves requests until end of input, a count line of 0 or less, a framing
  // error or a request whose values do not convert.
  void run();

 private:
  void answer(const GenerationRequest& request);
  // Decodes from `current` until a stop rule holds; returns the final position.
  std::uint64_t decode(std::int64_t current, std::uint64_t pos, std::uint64_t generated,
                       const SamplingParams& params);
  bool is_eos(std::int64_t token) const;
  void emit(std::int64_t value);

  TokenModel& model_;
  const InitConfig& config_;
  std::istream& in_;
  std::ostream& out_;
  std::ostream& err_;
  std::vector<std::int64_t> history_;  // entry i: the token at cache position i
  // Cache positions that hold keys and values: everything below the highest
  // position any request has reached. Attention must never read above it.
  std::uint64_t filled_ = 0;
};

}  // namespace quorvel
