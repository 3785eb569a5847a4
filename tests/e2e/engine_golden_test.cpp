// Golden conversations: for every architecture code, every unembedding
// format and every LoRA factor storage, a small generated model answers a
// fixed script of requests, and everything the engine prints (standard
// output, standard error, exit status) must equal the stored transcript
// under golden/ byte for byte, with one thread and with two.
//
// The kernel sets give the portable results bit for bit, except that the
// NEON sets may compute the silu gate with a reciprocal estimate; where that
// changes a transcript, the NEON sets have their own under golden/neon/.
//
// The transcripts were recorded once and are the engine's behaviour to keep:
// a change to the code that is meant to change nothing must leave them as
// they are. A change that is meant to alter the output rewrites them with
// QUORVEL_UPDATE_GOLDEN=1 set; the test then writes the transcripts and
// reports itself skipped, and the diff shows what changed.
#include <cstdlib>
#include <string_view>

#include "e2e_support.h"
#include "runtime/kernel_sets.h"

namespace quorvel::e2e {
namespace {

struct GoldenCase {
  const char* name;
  std::vector<std::string> model_options;
};

std::string token_list(std::size_t count, std::size_t step, std::size_t vocab) {
  std::string list;
  for (std::size_t i = 0; i < count; ++i) list += (i ? "," : "") + std::to_string(i * step % vocab);
  return list;
}

// The script every case answers. It fills the cache, continues it, goes back
// to the start with a prompt longer than one attention block, samples with a
// repetition penalty but a single candidate (so that the draw cannot vary),
// and ends with a request the engine refuses.
std::string script() {
  return request({"tokens=11,57,203,9,140", "temperature=0", "max_tokens=10"}) +
         request({"kv_position=15", "tokens=77,78", "temperature=0", "max_tokens=5"}) +
         request({"kv_position=0", "tokens=" + token_list(70, 37, 300), "temperature=0", "max_tokens=6"}) +
         request({"tokens=3,4,5", "temperature=0.7", "top_k=1", "repetition_penalty=1.3",
                  "rep_penalty_lookback=16", "max_tokens=8", "colour=blue"}) +
         request({"kv_position=120", "tokens=6", "max_tokens=2"}) +
         request({"kv_position=3", "tokens=1,2", "temperature=0", "max_tokens=300"});
}

const std::vector<std::string> kShape = {"--hidden", "256", "--intermediate", "384", "--layers", "2",
                                         "--heads", "4", "--kv-heads", "2", "--head-dim", "128",
                                         "--vocab", "300", "--max-pos", "128", "--eos", "2,299", "--seed", "7"};

std::vector<std::string> with_shape(std::vector<std::string> options) {
  options.insert(options.begin(), kShape.begin(), kShape.end());
  return options;
}

const GoldenCase kCases[] = {
    {"bitnet", with_shape({"--arch", "1"})},
    {"bitnet_tied_relu2", with_shape({"--arch", "1", "--tied", "--activation", "0"})},
    {"llama_bias_q4_0", with_shape({"--arch", "2", "--qkv-bias", "--unembed-quant", "q4_0"})},
    {"qwen3_5", with_shape({"--arch", "3"})},
    {"q1_0_tied_q5_0", with_shape({"--arch", "4", "--tied", "--unembed-quant", "q5_0"})},
    {"q1_58_q6_k", with_shape({"--arch", "5", "--unembed-quant", "q6_k"})},
    {"q8_0", with_shape({"--arch", "6", "--unembed-quant", "q8_0"})},
    {"q8_0_tied_int8", with_shape({"--arch", "6", "--tied"})},
    {"lora_bf16", with_shape({"--arch", "1", "--lora-rank", "4"})},
    {"lora_int8", with_shape({"--arch", "2", "--lora-rank", "4", "--lora-quant", "int8"})},
    {"lora_q8_0", with_shape({"--arch", "4", "--lora-rank", "3", "--lora-quant", "q8_0"})},
    {"lora_q4_0", with_shape({"--arch", "5", "--lora-rank", "4", "--lora-quant", "q4_0"})},
    {"lora_q5_0", with_shape({"--arch", "6", "--lora-rank", "5", "--lora-quant", "q5_0"})},
    {"lora_q6_k", with_shape({"--arch", "1", "--lora-rank", "4", "--lora-quant", "q6_k"})},
};

// `text` with every occurrence of the temporary model directory named alike.
std::string without_directory(std::string text, const std::string& dir) {
  for (auto at = text.find(dir); at != std::string::npos; at = text.find(dir, at)) {
    text.replace(at, dir.size(), "MODEL");
  }
  return text;
}

// What the engine printed for the script, as one text.
std::string transcript(const fs::path& dir, const std::string& threads) {
  const ProcessResult result = run_engine(dir, init_block(dir, {{"num_threads", threads}}) + script());
  return without_directory("exit status " + std::to_string(result.exit_status) + ", signal " +
                               std::to_string(result.signal) + "\n--- standard output\n" + result.out +
                               "--- standard error\n" + result.err,
                           dir.string());
}

// The stored transcript of a case for the kernel set this processor runs.
fs::path fixture_path(const std::string& name) {
  const fs::path golden(QUORVEL_GOLDEN_DIR);
  const fs::path own = golden / "neon" / (name + ".txt");
  const bool neon = std::string_view(kernels::preferred_kernel_set().name).starts_with("neon");
  if (neon && (fs::exists(own) || std::getenv("QUORVEL_UPDATE_GOLDEN") != nullptr)) return own;
  return golden / (name + ".txt");
}

std::string read_file(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

class Golden : public ::testing::TestWithParam<GoldenCase> {};

TEST_P(Golden, TranscriptMatchesTheStoredOneWithOneAndTwoThreads) {
  const GoldenCase& golden = GetParam();
  TempDir root;
  const fs::path dir = root.path() / golden.name;
  make_model(dir, golden.model_options);
  const fs::path fixture = fixture_path(golden.name);
  const std::string one_thread = transcript(dir, "1");

  if (std::getenv("QUORVEL_UPDATE_GOLDEN") != nullptr) {
    std::ofstream(fixture, std::ios::binary) << one_thread;
    GTEST_SKIP() << "wrote " << fixture;
  }
  ASSERT_TRUE(fs::exists(fixture)) << fixture << " is missing; record it with QUORVEL_UPDATE_GOLDEN=1";
  const std::string stored = read_file(fixture);
  EXPECT_EQ(one_thread, stored);
  EXPECT_EQ(transcript(dir, "2"), stored);
}

INSTANTIATE_TEST_SUITE_P(EveryArchitectureAndFormat, Golden, ::testing::ValuesIn(kCases),
                         [](const auto& test) { return std::string(test.param.name); });

}  // namespace
}  // namespace quorvel::e2e
