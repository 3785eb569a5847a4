#include "host/serve_load/request_mix.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <string_view>

namespace quorvel::serve_load {

namespace {

constexpr std::array<std::string_view, 48> kWords{
    "the",      "river",  "carried", "a",       "small",   "boat",    "past",    "old",   "mill",    "where",
    "children", "played", "near",    "quiet",   "water",   "under",   "green",   "trees", "while",   "their",
    "parents",  "talked", "about",   "harvest", "weather", "prices",  "and",     "roads", "leading", "toward",
    "distant",  "towns",  "beyond",  "hills",   "covered", "with",    "morning", "mist",  "explain", "why",
    "summary",  "story",  "write",   "list",    "three",   "reasons", "brief",   "answer"};

}  // namespace

RequestMix::RequestMix(std::uint64_t seed, int client, MixRanges ranges) : ranges_(ranges) {
  std::seed_seq sequence{static_cast<std::uint32_t>(seed), static_cast<std::uint32_t>(seed >> 32),
                         static_cast<std::uint32_t>(client)};
  random_.seed(sequence);
}

RequestPlan RequestMix::next() {
  RequestPlan plan;
  plan.continues = chat_turns_ > 0 && chat_turns_ < kMaxTurns && chance(40);
  plan.endpoint = plan.continues || chance(60) ? Endpoint::kChat : Endpoint::kCompletion;
  plan.stream = chance(50);
  plan.max_tokens = uniform(ranges_.max_tokens);
  IntRange length = ranges_.prompt_words;
  if (plan.continues) length.high = std::max(length.low, std::min(length.high, kMaxFollowUpWords));
  plan.text = words(prompt_length(length));
  chat_turns_ = plan.endpoint == Endpoint::kCompletion ? 0 : plan.continues ? chat_turns_ + 1 : 1;
  return plan;
}

int RequestMix::uniform(IntRange range) {
  const auto span = static_cast<std::uint64_t>(range.high - range.low) + 1;
  return range.low + static_cast<int>(random_() % span);
}

bool RequestMix::chance(int percent) { return static_cast<int>(random_() % 100) < percent; }

// Log-uniform: as many prompts of a few words as of tens, and as of hundreds.
int RequestMix::prompt_length(IntRange range) {
  const double unit = static_cast<double>(random_() >> 11) * 0x1.0p-53;
  const double low = std::log(range.low), high = std::log(range.high + 1.0);
  return std::clamp(static_cast<int>(std::exp(low + (high - low) * unit)), range.low, range.high);
}

std::string RequestMix::words(int count) {
  std::string text;
  for (int i = 0; i < count; ++i) {
    if (i > 0) text += ' ';
    text += kWords[random_() % kWords.size()];
  }
  return text;
}

}  // namespace quorvel::serve_load
