// The engine binary generating on synthetic models of every architecture:
// the stop rules as a host sees them, conversation continuation, the
// sampling clamps and thread-count independence.
#include <set>

#include "e2e_support.h"

namespace quorvel::e2e {
namespace {

const std::vector<std::string> kSmallShape = {"--hidden", "256",      "--intermediate", "512", "--layers",
                                              "2",        "--heads",  "2",              "--kv-heads", "1",
                                              "--head-dim", "128",    "--vocab",        "300", "--max-pos", "64"};

// One model directory per architecture code, written once per test program.
const fs::path& model_dir(int arch) {
  static TempDir root;
  static std::map<int, fs::path> dirs;
  if (!dirs.count(arch)) {
    const fs::path dir = root.path() / ("arch" + std::to_string(arch));
    std::vector<std::string> options = kSmallShape;
    options.insert(options.end(), {"--arch", std::to_string(arch), "--eos", "2"});
    make_model(dir, options);
    dirs[arch] = dir;
  }
  return dirs[arch];
}

// Serves `requests` with the model of `arch` and returns standard output,
// failing the test when the engine does not end normally.
std::string serve(int arch, const std::string& requests, const std::map<std::string, std::string>& init = {}) {
  const ProcessResult result = run_engine(model_dir(arch), init_block(model_dir(arch), init) + requests);
  EXPECT_EQ(result.signal, 0) << result.err;
  EXPECT_EQ(result.exit_status, 0) << result.err;
  return result.out;
}

const std::string kPrompt = "tokens=11,57,203,9,140";

class EveryArchitecture : public ::testing::TestWithParam<int> {};

TEST_P(EveryArchitecture, GreedyGenerationIsTheSameWithOneAndTwoThreads) {
  const std::string ask = request({kPrompt, "temperature=0", "max_tokens=12"});
  const std::string one = serve(GetParam(), ask, {{"num_threads", "1"}});
  const std::string two = serve(GetParam(), ask, {{"num_threads", "2"}});
  EXPECT_EQ(one, two);
  const auto lines = lines_of(one);
  ASSERT_GE(lines.size(), 3u);
  // Not one token forever: a synthetic model must still generate something.
  std::set<std::string> distinct(lines.begin(), lines.end() - 2);
  EXPECT_GT(distinct.size(), 1u) << one;
}

TEST_P(EveryArchitecture, ContinuingAConversationEqualsOneLongerRequest) {
  const std::string first = serve(GetParam(), request({kPrompt, "temperature=0", "max_tokens=1"}));
  const auto first_lines = lines_of(first);
  ASSERT_EQ(first_lines.size(), 3u) << first;
  const std::string position = first_lines[2];

  const std::string continued = serve(GetParam(), request({kPrompt, "temperature=0", "max_tokens=1"}) +
                                                      request({"kv_position=" + position, "tokens=77,78",
                                                               "temperature=0", "max_tokens=6"}));
  // The same history in one request: prompt, sampled token, end marker, new tokens.
  const std::string whole = kPrompt + "," + first_lines[0] + "," + first_lines[1] + ",77,78";
  const std::string at_once = serve(GetParam(), request({whole, "temperature=0", "max_tokens=6"}));
  EXPECT_EQ(continued.substr(first.size()), at_once);
}

TEST_P(EveryArchitecture, ClampedSamplingValuesBehaveAsTheirLimits) {
  const std::string greedy = serve(GetParam(), request({kPrompt, "temperature=0", "max_tokens=8"}));
  EXPECT_EQ(serve(GetParam(), request({kPrompt, "temperature=-1", "max_tokens=8"})), greedy);
  // top_k 0 keeps one candidate; top_p 0 keeps the most probable one. (The
  // penalty is off: greedy decoding ignores it, sampling does not.)
  EXPECT_EQ(serve(GetParam(),
                  request({kPrompt, "temperature=1.5", "top_k=0", "repetition_penalty=1", "max_tokens=8"})),
            greedy);
  EXPECT_EQ(serve(GetParam(), request({kPrompt, "temperature=1.5", "top_k=1000", "top_p=0",
                                       "repetition_penalty=1", "max_tokens=8"})),
            greedy);
}

INSTANTIATE_TEST_SUITE_P(Codes, EveryArchitecture, ::testing::Values(1, 2, 3, 4, 5, 6));

TEST(StopRules, EmptyRequestAtPositionZeroPrintsTheEndMarkerAndZero) {
  EXPECT_EQ(serve(6, request({"kv_position=0"})), "2\n0\n");
}

TEST(StopRules, APromptThatFillsTheContextIsRefused) {
  std::string tokens = "tokens=1";
  for (int i = 1; i < 64; ++i) tokens += ",1";
  EXPECT_EQ(serve(6, request({tokens})), "2\n0\n");
  EXPECT_EQ(serve(6, request({"kv_position=60", "tokens=1,1,1,1"})), "2\n60\n");
}

TEST(StopRules, MaxTokensOneCountsThePromptTheTokenAndTheEndMarker) {
  const auto lines = lines_of(serve(6, request({kPrompt, "temperature=0", "max_tokens=1"})));
  if (lines.front() == "2") GTEST_SKIP() << "the model samples the end-of-sequence id first";
  EXPECT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[1], "2");
  EXPECT_EQ(lines.back(), "7");
}

TEST(StopRules, WithoutALimitGenerationRunsToTheFullContext) {
  // No end-of-sequence id: the end marker is eos_tokens[0], which stays 0.
  const auto lines = lines_of(serve(1, request({kPrompt, "temperature=0"}), {{"eos_tokens", ""}}));
  ASSERT_EQ(lines.size(), 64u - 5u + 2u);
  EXPECT_EQ(lines[lines.size() - 2], "0");
  EXPECT_EQ(lines.back(), "64");
}

TEST(StopRules, ASampledEndOfSequenceIsPrintedOnce) {
  const auto free_run = lines_of(serve(1, request({kPrompt, "temperature=0", "max_tokens=4"})));
  ASSERT_GE(free_run.size(), 3u);
  const std::string eos = free_run[1];  // the second generated token becomes the end
  if (eos == free_run[0]) GTEST_SKIP() << "the model repeats its first token";
  const std::string out = serve(1, request({kPrompt, "temperature=0"}), {{"eos_tokens", eos}});
  EXPECT_EQ(out, free_run[0] + "\n" + eos + "\n7\n");
}

TEST(RequestFailures, ATokenOutOfRangeEndsTheEngineAbnormally) {
  const ProcessResult result =
      run_engine(model_dir(1), init_block(model_dir(1)) + request({"tokens=5,5000"}));
  EXPECT_TRUE(ended_by_abort(result)) << result.exit_status << ", signal " << result.signal;
  EXPECT_NE(result.err.find("Token ID 5000 out of range (vocab_size=300)"), std::string::npos) << result.err;
  EXPECT_EQ(result.out, "");
}

TEST(RequestFailures, AnUnconvertibleValueEndsTheEngineWithStatusZero) {
  const ProcessResult result = run_engine(
      model_dir(1), init_block(model_dir(1)) + request({"top_k=abc"}) + request({kPrompt, "max_tokens=1"}));
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.err, "Error parsing request: stoull\n");
  EXPECT_EQ(result.out, "");
}

// Only a line feed ends a line: a host that writes CR LF leaves a carriage
// return at the end of every value, on every platform (on Windows the engine
// reads its input in binary mode, so nothing strips it there either). Counts
// and numbers still read, since their conversions stop at it; a blank line
// is a malformed one; a text value keeps it and no longer names anything.
std::string with_crlf(const std::string& text) {
  std::string result;
  for (const char c : text) result += c == '\n' ? std::string("\r\n") : std::string(1, c);
  return result;
}

TEST(CrLfHost, RequestNumbersStillReadButAnInitTextValueIsRefused) {
  const fs::path& dir = model_dir(1);
  const std::string ask = request({kPrompt, "temperature=0", "max_tokens=5"});
  const ProcessResult lf = run_engine(dir, init_block(dir) + ask + ask);
  const std::string blank_line_request = with_crlf("4\n" + kPrompt + "\ntemperature=0\n\nmax_tokens=5\n");
  const ProcessResult crlf = run_engine(dir, init_block(dir) + with_crlf(ask) + blank_line_request);
  EXPECT_EQ(crlf.exit_status, 0) << crlf.err;
  EXPECT_EQ(crlf.out, lf.out);
  EXPECT_EQ(crlf.err, "Warning: malformed key=value line: '\r'\n");

  const ProcessResult refused = run_engine(dir, with_crlf("2\narch_type=1\nunembed_quant=int8\n"));
  EXPECT_EQ(refused.exit_status, 1);
  EXPECT_EQ(refused.err, "Error parsing init config: Unknown value for unembed_quant: int8\r\n");
  EXPECT_EQ(refused.out, "");
}

}  // namespace
}  // namespace quorvel::e2e
