// The requests of one simulated client: chat and completions, streamed or not, short and long
// prompts, small and large max_tokens, and chats carried on for a few turns so that the server can
// reuse what it has already read. The same seed and client always give the same requests.
#pragma once

#include <cstdint>
#include <random>

#include "host/serve_load/request_plan.h"

namespace quorvel::serve_load {

struct IntRange {
  int low = 0;
  int high = 0;
};

struct MixRanges {
  IntRange max_tokens{4, 96};
  IntRange prompt_words{3, 300};
};

class RequestMix {
 public:
  // The longest chat: turns after this many start a new conversation.
  static constexpr int kMaxTurns = 4;
  // A continuing user turn is at most this many words long.
  static constexpr int kMaxFollowUpWords = 40;

  RequestMix(std::uint64_t seed, int client, MixRanges ranges);
  RequestPlan next();

 private:
  int uniform(IntRange range);
  bool chance(int percent);
  int prompt_length(IntRange range);
  std::string words(int count);

  std::mt19937_64 random_;
  MixRanges ranges_;
  int chat_turns_ = 0;  // turns of the current chat so far; 0 after a completion
};

}  // namespace quorvel::serve_load
