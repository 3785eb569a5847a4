// The model shipped in models/ against an independent implementation of its architecture: the
// training script's own forward pass, which rounds where the engine rounds, wrote greedy
// continuations of a dozen prompts with the gap between the two best logits at every step. The
// engine, on the converted checkpoint, must produce the same tokens up to the first step whose gap
// is a near tie (below kNearTie, where the last rounding of either side may tip it), and at least
// kAtLeastAgreed tokens for every prompt.
#include <gtest/gtest.h>

#include <fstream>
#include <iostream>
#include <sstream>

#include "tests/e2e/e2e_support.h"
#include "tools/convert/convert_command.h"

namespace quorvel::e2e {
namespace {

constexpr double kNearTie = 0.05;
constexpr std::size_t kAtLeastAgreed = 16;

struct Continuation {
  std::string prompt;
  std::vector<long long> prompt_ids, tokens;
  std::vector<double> gaps;
};

// A list of numbers in the JSON file: "key": [1, 2, 3].
template <typename T>
std::vector<T> numbers_after(const std::string& text, std::size_t& at, const std::string& key) {
  at = text.find("\"" + key + "\"", at);
  const std::size_t open = text.find('[', at), close = text.find(']', open);
  std::vector<T> values;
  std::istringstream list(text.substr(open + 1, close - open - 1));
  for (std::string item; std::getline(list, item, ',');) values.push_back(static_cast<T>(std::stod(item)));
  at = close;
  return values;
}

// The continuations of the reference file, read without a JSON library (the test also runs in
// cross builds, which have none): each entry holds "prompt", "prompt_ids", "tokens" and "gaps".
std::vector<Continuation> read_reference(const fs::path& file) {
  std::ifstream in(file);
  std::ostringstream bytes;
  bytes << in.rdbuf();
  const std::string text = bytes.str();
  std::vector<Continuation> continuations;
  for (std::size_t at = text.find("\"prompt\""); at != std::string::npos; at = text.find("\"prompt\"", at)) {
    Continuation c;
    const std::size_t quote = text.find('"', text.find(':', at) + 1);
    c.prompt = text.substr(quote + 1, text.find('"', quote + 1) - quote - 1);
    c.prompt_ids = numbers_after<long long>(text, at, "prompt_ids");
    c.tokens = numbers_after<long long>(text, at, "tokens");
    c.gaps = numbers_after<double>(text, at, "gaps");
    continuations.push_back(c);
  }
  return continuations;
}

std::string joined(const std::vector<long long>& ids) {
  std::string list;
  for (const long long id : ids) list += (list.empty() ? "" : ",") + std::to_string(id);
  return list;
}

TEST(ShippedModel, GreedyContinuationsAgreeWithTheReferenceImplementation) {
  const TempDir dir;
  const fs::path converted = dir.path() / "converted";
  const std::string source = fs::path(QUORVEL_SHIPPED_MODEL).string(), target = converted.string();
  const std::vector<std::string_view> args{source, target};
  std::ostringstream log;
  ASSERT_EQ(convert::run_convert(args, log, log), 0) << log.str();

  const std::vector<Continuation> reference = read_reference(fs::path(QUORVEL_SHIPPED_MODEL) / "reference_continuations.json");
  ASSERT_EQ(reference.size(), 12u);
  std::string input = init_block(converted);
  for (const Continuation& c : reference) {
    input += request({"kv_position=0", "tokens=" + joined(c.prompt_ids), "temperature=0",
                      "max_tokens=" + std::to_string(c.tokens.size())});
  }
  const ProcessResult engine = run_engine(converted, input);
  ASSERT_EQ(engine.exit_status, 0) << engine.err;
  // Each answer: the generated ids, an end id last, then the position line.
  const std::string init = init_block(converted);
  const long long end_id = std::stoll(init.substr(init.find("eos_tokens=") + 11));
  std::istringstream lines(engine.out);
  for (const Continuation& c : reference) {
    std::vector<long long> generated;
    for (std::string line; std::getline(lines, line);) {
      generated.push_back(std::stoll(line));
      if (generated.back() == end_id) break;
    }
    std::string position;
    std::getline(lines, position);
    std::size_t agreed = 0;
    while (agreed < c.tokens.size() && agreed < generated.size() && generated[agreed] == c.tokens[agreed]) ++agreed;
    std::size_t near_tie = 0;
    while (near_tie < c.gaps.size() && c.gaps[near_tie] >= kNearTie) ++near_tie;
    std::cout << "  \"" << c.prompt << "\": " << agreed << " of " << c.tokens.size() << " tokens agree"
              << (near_tie < c.gaps.size() ? ", first near tie at step " + std::to_string(near_tie) : "") << "\n";
    EXPECT_GE(agreed, std::min(near_tie, c.tokens.size())) << c.prompt;
    EXPECT_GE(agreed, kAtLeastAgreed) << c.prompt;
  }
}

}  // namespace
}  // namespace quorvel::e2e
