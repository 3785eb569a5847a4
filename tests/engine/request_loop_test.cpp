// The request loop's stop rules, driven through a scripted model that
// records every forward and keeps a cache position like the real layers.
#include "engine/request_loop.h"

#include <gtest/gtest.h>

#include <deque>
#include <sstream>
#include <stdexcept>

namespace quorvel {
namespace {

struct Forward {
  std::uint64_t position;
  std::vector<std::int64_t> tokens;
  bool operator==(const Forward&) const = default;
};

class ScriptedModel : public TokenModel {
 public:
  explicit ScriptedModel(std::uint64_t context) : context_(context) {}

  void set_position(std::uint64_t position) override { position_ = position; }
  void forward(const std::int64_t* tokens, std::uint64_t n) override {
    if (position_ > context_ || n > context_ - position_) throw std::runtime_error("Exceeded context size");
    forwards.push_back({position_, std::vector<std::int64_t>(tokens, tokens + n)});
    position_ += n;
  }
  std::int64_t sample(const std::int64_t*, std::uint64_t history_len, const SamplingParams& params) override {
    history_lengths.push_back(history_len);
    last_params = params;
    if (script.empty()) return 100 + static_cast<std::int64_t>(history_len);
    const std::int64_t next = script.front();
    script.pop_front();
    return next;
  }

  std::deque<std::int64_t> script;
  std::vector<Forward> forwards;
  std::vector<std::uint64_t> history_lengths;
  SamplingParams last_params;

 private:
  std::uint64_t context_;
  std::uint64_t position_ = 0;
};

struct Served {
  std::string out;
  std::string err;
};

class RequestLoopTest : public ::testing::Test {
 protected:
  RequestLoopTest() : model(8) {
    config.max_position_embeddings = 8;
    config.num_eos_tokens = 2;
    config.eos_tokens[0] = 2;
    config.eos_tokens[1] = 7;
  }

  Served serve(const std::string& input) {
    std::istringstream in(input);
    std::ostringstream out, err;
    RequestLoop(model, config, in, out, err).run();
    return {out.str(), err.str()};
  }

  InitConfig config;
  ScriptedModel model;
};

TEST_F(RequestLoopTest, EmptyRequestAtPositionZeroComputesNothing) {
  EXPECT_EQ(serve("1\nkv_position=0\n").out, "2\n0\n");
  EXPECT_TRUE(model.forwards.empty());
}

TEST_F(RequestLoopTest, PromptThatFillsTheContextIsRefused) {
  EXPECT_EQ(serve("2\nkv_position=5\ntokens=1,1,1\n").out, "2\n5\n");
  EXPECT_EQ(serve("1\nkv_position=9\n").out, "2\n9\n");
  EXPECT_TRUE(model.forwards.empty());
}

TEST_F(RequestLoopTest, MaxTokensOneGivesThePrefillTokenAndAnEndMarker) {
  model.script = {5};
  EXPECT_EQ(serve("2\ntokens=10,11\nmax_tokens=1\n").out, "5\n2\n4\n");
  // prompt at 0, the sampled token at 2, the appended end marker at 3
  const std::vector<Forward> expected = {{0, {10, 11}}, {2, {5}}, {3, {2}}};
  EXPECT_EQ(model.forwards, expected);
  EXPECT_EQ(model.history_lengths, std::vector<std::uint64_t>{2});
}

TEST_F(RequestLoopTest, UnlimitedGenerationStopsAtAFullContext) {
  model.script = {3, 4, 5, 6, 8, 9};
  EXPECT_EQ(serve("1\ntokens=10,11\n").out, "3\n4\n5\n6\n8\n9\n2\n8\n");
  // Every sampled token entered the cache; the end marker was not stored.
  ASSERT_EQ(model.forwards.size(), 7u);
  EXPECT_EQ(model.forwards.back(), (Forward{7, {9}}));
  EXPECT_EQ(model.history_lengths, (std::vector<std::uint64_t>{2, 3, 4, 5, 6, 7}));
}

TEST_F(RequestLoopTest, SampledEndOfSequenceIsPrintedOnceAndCached) {
  model.script = {4, 7};
  EXPECT_EQ(serve("1\ntokens=10\n").out, "4\n7\n3\n");
  const std::vector<Forward> expected = {{0, {10}}, {1, {4}}, {2, {7}}};
  EXPECT_EQ(model.forwards, expected);
}

TEST_F(RequestLoopTest, ContinueFeedsTheLastTokenAgainAtThePosition) {
  model.script = {4, 6};
  EXPECT_EQ(serve("2\ntokens=10\nmax_tokens=1\n"
                  "2\nkv_position=2\nmax_tokens=1\n")
                .out,
            "4\n2\n3\n"
            "6\n2\n4\n");
  // The second request re-feeds history[1] (the sampled 4) at position 2.
  const std::vector<Forward> expected = {{0, {10}}, {1, {4}}, {2, {2}}, {2, {4}}, {3, {6}}, {4, {2}}};
  EXPECT_EQ(model.forwards, expected);
}

TEST_F(RequestLoopTest, ContinueAfterAnEndOfSequencePrintsOnlyThePosition) {
  model.script = {7};
  EXPECT_EQ(serve("1\ntokens=10\n"
                  "1\nkv_position=2\n")
                .out,
            "7\n2\n"
            "2\n");
}

TEST_F(RequestLoopTest, PositionsNoRequestHasFilledAreRefusedWithTheFilledCount) {
  model.script = {4, 7};
  const Served run = serve("1\nkv_position=3\n"            // nothing filled yet: continue from 3
                           "2\nkv_position=1\ntokens=5\n"  // a gap at position 0
                           "1\ntokens=10\n"                 // fills 0 .. 2
                           "3\nkv_position=3\ntokens=6\nmax_tokens=1\n"  // appends at the end: 3 .. 5
                           "1\nkv_position=7\n");
  EXPECT_EQ(run.out, "2\n0\n" "2\n0\n" "4\n7\n3\n" "104\n2\n6\n" "2\n6\n");
  EXPECT_EQ(run.err,
            "Error: kv_position=3 is beyond the 0 cache positions filled so far; nothing was computed\n"
            "Error: kv_position=1 is beyond the 0 cache positions filled so far; nothing was computed\n"
            "Error: kv_position=7 is beyond the 6 cache positions filled so far; nothing was computed\n");
  EXPECT_EQ(model.forwards.front(), (Forward{0, {10}}));
}

TEST_F(RequestLoopTest, ContinueToAFullContextEndsInTheCacheOverflow) {
  model.script = {4};
  EXPECT_THROW(serve("2\ntokens=10\nmax_tokens=1\n"
                     "1\nkv_position=2\n"),
               std::runtime_error);
}

TEST_F(RequestLoopTest, UnconvertibleValueEndsTheLoopAfterItsMessage) {
  const Served run = serve("1\ntop_k=abc\n1\ntokens=1\n");
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.err, "Error parsing request: stoull\n");
}

TEST_F(RequestLoopTest, CountLineOfZeroEndsTheLoop) {
  EXPECT_EQ(serve("0\n1\ntokens=1\n").out, "");
}

TEST_F(RequestLoopTest, UnknownKeysAreWarnedAndSamplingValuesClamped) {
  model.script = {4};
  const Served run = serve("6\nmodel=x\ntokens=1\nmax_tokens=1\ntop_k=0\ntop_p=0\ntemperature=-1\n");
  EXPECT_EQ(run.err, "Warning: unknown request key 'model'\n");
  EXPECT_EQ(model.last_params.top_k, 1u);
  EXPECT_EQ(model.last_params.top_p, 1e-6f);
  EXPECT_EQ(model.last_params.temperature, 0.0f);
  serve("2\ntokens=1\ntop_k=1000\n");
  EXPECT_EQ(model.last_params.top_k, 256u);
}

}  // namespace
}  // namespace quorvel
