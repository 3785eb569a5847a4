// Shapes that published models do not have but the engine serves all the
// same: query rows wider than the feed-forward rows.
#include "e2e_support.h"

namespace quorvel::e2e {
namespace {

std::string token_list(std::size_t first, std::size_t count) {
  std::string list;
  for (std::size_t i = first; i < first + count; ++i) {
    if (!list.empty()) list += ',';
    list += std::to_string(7 * i % 300);
  }
  return list;
}

// Greedy output lines of `requests` served in one engine run.
std::vector<std::string> serve(const fs::path& dir, const std::string& requests, const std::string& threads) {
  const ProcessResult result = run_engine(dir, init_block(dir, {{"num_threads", threads}}) + requests);
  EXPECT_EQ(result.signal, 0) << result.err;
  EXPECT_EQ(result.exit_status, 0) << result.err;
  return lines_of(result.out);
}

TEST(Shapes, QueryRowsWiderThanTheFeedForwardRowsFitTheLayerBuffers) {
  // 8 heads of 64 make query rows of 512 values; the feed-forward rows hold
  // 384. An 80-token prompt fills the buffers with 80 query rows.
  TempDir root;
  const fs::path dir = root.path() / "wide-queries";
  make_model(dir, {"--arch", "1", "--hidden", "256", "--intermediate", "384", "--layers", "2", "--heads", "8",
                   "--kv-heads", "2", "--head-dim", "64", "--vocab", "300", "--max-pos", "96"});
  const std::string whole = request({"tokens=" + token_list(0, 80), "temperature=0", "max_tokens=6"});
  const std::vector<std::string> at_once = serve(dir, whole, "1");
  ASSERT_EQ(at_once.size(), 8u);
  EXPECT_EQ(at_once.back(), "87");
  EXPECT_EQ(serve(dir, whole, "2"), at_once);

  // The same prompt in two halves: the second half attends over the first
  // half's cache rows and must sample the same tokens.
  const std::vector<std::string> halves =
      serve(dir,
            request({"tokens=" + token_list(0, 39), "temperature=0", "max_tokens=1"}) +
                request({"kv_position=39", "tokens=" + token_list(39, 41), "temperature=0", "max_tokens=6"}),
            "2");
  ASSERT_EQ(halves.size(), 11u);
  EXPECT_EQ(std::vector<std::string>(halves.begin() + 3, halves.end()), at_once);
}

}  // namespace
}  // namespace quorvel::e2e
