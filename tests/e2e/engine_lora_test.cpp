// The engine binary with a LoRA adapter: what the adapter does to generation
// (and what an adapter with B = 0 must not do), thread-count independence
// for every factor storage, and the start-up messages and refusals of the
// adapter file.


#include "e2e_support.h"

namespace quorvel::e2e {
namespace {

const std::vector<std::string> kShape = {"--hidden", "256", "--intermediate", "512", "--layers", "2",
                                         "--heads", "2", "--kv-heads", "1", "--head-dim", "128",
                                         "--vocab", "300", "--max-pos", "64", "--eos", "2", "--seed", "11"};

// The same model (same options and seed) written once per variant of the
// adapter: none, a full one (rank 4 on all seven targets), and one whose B
// factors are zero.
enum class Adapter { NONE, FULL, ZERO_B };

const fs::path& model_dir(int arch, Adapter adapter) {
  static TempDir root;
  static std::map<std::pair<int, Adapter>, fs::path> dirs;
  const auto key = std::make_pair(arch, adapter);
  if (!dirs.count(key)) {
    const std::string name = "arch" + std::to_string(arch) + "-" + std::to_string(static_cast<int>(adapter));
    const fs::path dir = root.path() / name;
    std::vector<std::string> options = kShape;
    options.insert(options.end(), {"--arch", std::to_string(arch)});
    if (adapter != Adapter::NONE) options.insert(options.end(), {"--lora-rank", "4"});
    if (adapter == Adapter::ZERO_B) options.push_back("--lora-zero-b");
    make_model(dir, options);
    dirs[key] = dir;
  }
  return dirs.at(key);
}

const std::string kAsk = request({"tokens=11,57,203,9,140", "temperature=0", "max_tokens=12"});

ProcessResult serve(const fs::path& dir, const std::map<std::string, std::string>& init = {}) {
  const ProcessResult result = run_engine(dir, init_block(dir, init) + kAsk);
  EXPECT_EQ(result.signal, 0) << result.err;
  EXPECT_EQ(result.exit_status, 0) << result.err;
  return result;
}

const std::string kLoadedMessages =
    "Loading LoRA adapter...\n  LoRA rank: 4, layers: 2, targets/layer: 7\nLoRA adapter loaded.\n\n";

class AdapterOnEveryArchitecture : public ::testing::TestWithParam<int> {};

TEST_P(AdapterOnEveryArchitecture, AnAdapterChangesWhatIsGenerated) {
  const ProcessResult plain = serve(model_dir(GetParam(), Adapter::NONE));
  const ProcessResult adapted = serve(model_dir(GetParam(), Adapter::FULL));
  EXPECT_EQ(plain.err, "");
  EXPECT_EQ(adapted.err, kLoadedMessages);
  EXPECT_NE(adapted.out, plain.out);
}

// B = 0 makes every correction zero: the adapter is loaded and applied, and
// the tokens are those of the bare model, for every factor storage.
TEST_P(AdapterOnEveryArchitecture, AnAdapterWithBZeroGeneratesTheSameTokens) {
  const std::string plain = serve(model_dir(GetParam(), Adapter::NONE)).out;
  for (const char* quant : {"none", "int8", "q4_0", "q8_0"}) {
    const ProcessResult zero = serve(model_dir(GetParam(), Adapter::ZERO_B), {{"lora_quant", quant}});
    EXPECT_EQ(zero.err, kLoadedMessages);
    EXPECT_EQ(zero.out, plain) << quant;
  }
}

INSTANTIATE_TEST_SUITE_P(Codes, AdapterOnEveryArchitecture, ::testing::Values(1, 2, 4, 5, 6));

class AdapterInEveryStorage : public ::testing::TestWithParam<const char*> {};

TEST_P(AdapterInEveryStorage, OneAndTwoThreadsGenerateTheSameTokens) {
  const fs::path& dir = model_dir(6, Adapter::FULL);
  const std::string one = serve(dir, {{"lora_quant", GetParam()}, {"num_threads", "1"}}).out;
  const std::string two = serve(dir, {{"lora_quant", GetParam()}, {"num_threads", "2"}}).out;
  EXPECT_EQ(one, two);
  EXPECT_NE(one, serve(model_dir(6, Adapter::NONE)).out);
}

INSTANTIATE_TEST_SUITE_P(LoraQuant, AdapterInEveryStorage,
                         ::testing::Values("none", "int8", "q4_0", "q5_0", "q6_k", "q8_0"));

// A lora_dir without "qmodel.lora" (or one that does not exist) is no
// adapter and no message.
TEST(LoraStartup, AMissingAdapterFileIsSilentlyNoAdapter) {
  const fs::path& plain = model_dir(6, Adapter::NONE);
  const std::string expected = serve(plain).out;
  for (const fs::path& lora_dir : {plain, plain / "no such directory"}) {
    const ProcessResult result = serve(plain, {{"lora_dir", lora_dir.string()}});
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.out, expected);
  }
}

class LoraFileFailures : public ::testing::Test {
 protected:
  // A copy of the full adapter in its own directory, rewritten by `edit`.
  template <typename Edit>
  fs::path edited_adapter(Edit edit) {
    const fs::path dir = root_.path() / ::testing::UnitTest::GetInstance()->current_test_info()->name();
    fs::create_directories(dir);
    std::ifstream in(model_dir(6, Adapter::FULL) / "qmodel.lora", std::ios::binary);
    std::string bytes((std::istreambuf_iterator<char>(in)), {});
    edit(bytes);
    std::ofstream(dir / "qmodel.lora", std::ios::binary | std::ios::trunc) << bytes;
    return dir;
  }
  static ProcessResult start_with(const fs::path& lora_dir) {
    const fs::path& model = model_dir(6, Adapter::FULL);
    return run_engine(model, init_block(model, {{"lora_dir", lora_dir.string()}}) + kAsk);
  }
  static void expect_refused(const ProcessResult& result, const std::string& message) {
    EXPECT_EQ(result.exit_status, 1);
    EXPECT_EQ(result.err, "Loading LoRA adapter...\n" + message + "\n");
    EXPECT_EQ(result.out, "");
  }

  TempDir root_;
};

// Makes `path` exist without being openable as a file: a link to itself; on
// Windows, where links need a privilege (and libstdc++ makes none), a folder.
void make_unopenable(const fs::path& path) {
#if defined(_WIN32)
  fs::create_directory(path);
#else
  fs::create_symlink(path.filename(), path);
#endif
}

TEST_F(LoraFileFailures, AnUnopenableFileIsNamedAsAQuotedPath) {
  const fs::path dir = root_.path() / "loop dir";
  fs::create_directories(dir);
  make_unopenable(dir / "qmodel.lora");
  expect_refused(start_with(dir), "Error: Could not open " + quoted(dir / "qmodel.lora"));
}

TEST_F(LoraFileFailures, HeaderChecksEndStartUpWithStatusOne) {
  expect_refused(start_with(edited_adapter([](std::string& b) { b[3] = 'X'; })),
                 "Invalid LoRA file. Download the correct LoRA file for the model.");
  expect_refused(start_with(edited_adapter([](std::string& b) { b.resize(10); })),
                 "Invalid LoRA file. Download the correct LoRA file for the model.");
  expect_refused(start_with(edited_adapter([](std::string& b) { b[4] = 3; })),
                 "LoRA file version 3, engine expects version 4. Download the correct LoRA file for the model or "
                 "update your engine.");
}

// Errors past the header are exceptions that end the engine abnormally.
TEST_F(LoraFileFailures, LoadingErrorsEndTheEngineAbnormally) {
  const auto expect_abort = [](const ProcessResult& result, const std::string& message) {
    EXPECT_TRUE(ended_by_abort(result)) << result.exit_status << ", signal " << result.signal;
    EXPECT_NE(result.err.find(message), std::string::npos) << result.err;
    EXPECT_EQ(result.out, "");
  };
  expect_abort(start_with(edited_adapter([](std::string& b) { b[16] = 3; })),
               "LoRA num_layers mismatch: file has 3 but model has 2");
  expect_abort(start_with(edited_adapter([](std::string& b) { b[20] = 6; })),
               "Unsupported LoRA targets_per_layer: 6 (expected 7)");
  expect_abort(start_with(edited_adapter([](std::string& b) { b.resize(b.size() - 1); })),
               "Failed to read LoRA B matrix");
}

}  // namespace
}  // namespace quorvel::e2e
