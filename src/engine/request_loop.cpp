#include "engine/request_loop.h"

#include <algorithm>
#include <exception>
#include <string>

#include "engine/key_value_block.h"

namespace quorvel {

RequestLoop::RequestLoop(TokenModel& model, const InitConfig& config, std::istream& in, std::ostream& out,
                         std::ostream& err)
    : model_(model), config_(config), in_(in), out_(out), err_(err), history_(config.max_position_embeddings, 0) {}

void RequestLoop::run() {
  KeyValueBlock block;
  while (read_block(in_, block) >= 1) {
    GenerationRequest request;
    try {
      request = parse_request(block, err_);
    } catch (const std::exception& e) {
      // A request that cannot be read ends the engine as deliberately as
      // the end of input does.
      err_ << "Error parsing request: " << e.what() << std::endl;
      return;
    }
    answer(request);
  }
}

bool RequestLoop::is_eos(std::int64_t token) const {
  for (std::uint64_t i = 0; i < config_.num_eos_tokens; ++i) {
    if (config_.eos_tokens[i] == token) return true;
  }
  return false;
}

void RequestLoop::emit(std::int64_t value) { out_ << value << std::endl; }

void RequestLoop::answer(const GenerationRequest& request) {
  const SamplingParams params = clamp_sampling(request);
  const std::uint64_t context = config_.max_position_embeddings;
  const std::uint64_t n = request.tokens.size();
  std::uint64_t pos = request.kv_position;
  model_.set_position(pos);

  // Nothing to compute, or the prompt does not leave room for an answer.
  if (pos >= context || n + pos == 0 || n >= context - pos) {
    emit(config_.eos_tokens[0]);
    emit(static_cast<std::int64_t>(pos));
    return;
  }
  // Positions that no request has written hold no keys or values; a host
  // that points past them has lost track of the conversation. It is told
  // where the filled part ends and nothing is computed.
  if (pos > filled_) {
    err_ << "Error: kv_position=" << pos << " is beyond the " << filled_
         << " cache positions filled so far; nothing was computed" << std::endl;
    emit(config_.eos_tokens[0]);
    emit(static_cast<std::int64_t>(filled_));
    return;
  }

  std::int64_t current;
  std::uint64_t generated;
  if (n > 0) {
    std::copy(request.tokens.begin(), request.tokens.end(), history_.begin() + static_cast<std::ptrdiff_t>(pos));
    model_.forward(request.tokens.data(), n);
    current = model_.sample(history_.data(), pos + n, params);
    history_[pos + n] = current;
    emit(current);
    pos += n + 1;
    generated = 1;
  } else {
    // Continue: the last token of the history is fed again at `pos`, so a
    // host can resume generation without resending anything.
    current = history_[pos - 1];
    generated = 0;
  }
  const std::uint64_t end = decode(current, pos, generated, params);
  filled_ = std::max(filled_, end);
  emit(static_cast<std::int64_t>(end));
}

std::uint64_t RequestLoop::decode(std::int64_t current, std::uint64_t pos, std::uint64_t generated,
                                  const SamplingParams& params) {
  const std::uint64_t context = config_.max_position_embeddings;
  // max_tokens 0 sets no limit.
  auto limit_reached = [&] { return params.max_tokens != 0 && generated >= params.max_tokens; };
  while (!is_eos(current) && pos < context && !limit_reached()) {
    model_.forward(&current, 1);
    current = model_.sample(history_.data(), pos, params);
    history_[pos] = current;
    emit(current);
    ++pos;
    ++generated;
  }

  // The last token's keys and values enter the cache even though nothing
  // is sampled from it.
  model_.forward(&current, 1);
  if (is_eos(current)) return pos;

  const std::int64_t end_marker = config_.eos_tokens[0];
  emit(end_marker);
  if (pos != context && limit_reached()) {
    history_[pos] = end_marker;
    model_.forward(&end_marker, 1);
    ++pos;
  }
  return pos;
}

}  // namespace quorvel
