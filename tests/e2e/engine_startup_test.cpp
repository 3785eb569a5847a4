// Every way the engine refuses to start: its exact message and exit status.
#include <cstdlib>

#include "e2e_support.h"
#include "runtime/kernel_sets.h"
#include "runtime/usable_cpus.h"

namespace quorvel::e2e {
namespace {

class Startup : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    root_ = new TempDir;
    make_model(model(), {"--arch", "1", "--hidden", "256", "--intermediate", "512", "--layers", "2", "--heads",
                         "2", "--kv-heads", "1", "--head-dim", "128", "--vocab", "300", "--max-pos", "32"});
  }
  static void TearDownTestSuite() { delete root_; }
  static fs::path model() { return root_->path() / "model"; }

  // A copy of the model directory whose file `name` is rewritten by `edit`.
  // The copy is made afresh each time: libstdc++ 12 on Windows cannot
  // overwrite a file with copy_file, overwrite_existing or not.
  template <typename Edit>
  fs::path edited_copy(const std::string& name, Edit edit) {
    const fs::path dir = root_->path() / ::testing::UnitTest::GetInstance()->current_test_info()->name();
    fs::remove_all(dir);
    fs::create_directories(dir);
    for (const char* file : {"qmodel.tensors", "rope.cache", "init.txt"}) fs::copy_file(model() / file, dir / file);
    std::ifstream in(dir / name, std::ios::binary);
    std::string bytes((std::istreambuf_iterator<char>(in)), {});
    in.close();
    edit(bytes);
    std::ofstream(dir / name, std::ios::binary | std::ios::trunc) << bytes;
    return dir;
  }

  static void expect_refused(const ProcessResult& result, const std::string& message) {
    EXPECT_EQ(result.exit_status, 1);
    EXPECT_EQ(result.err, message + "\n");
    EXPECT_EQ(result.out, "");
  }

  static TempDir* root_;
};
TempDir* Startup::root_ = nullptr;

TEST_F(Startup, WrongArgumentCountPrintsTheUsage) {
  expect_refused(run_engine(std::vector<std::string>{}, ""),
                 std::string("Usage: ") + QUORVEL_ENGINE_BINARY + " <Model Directory>");
  expect_refused(run_engine({model().string(), "extra"}, ""),
                 std::string("Usage: ") + QUORVEL_ENGINE_BINARY + " <Model Directory>");
}

TEST_F(Startup, InitConfigFailures) {
  expect_refused(run_engine(model(), "1\nhidden_dim=256\n"),
                 "Error parsing init config: Init config missing required key 'arch_type'");
  expect_refused(run_engine(model(), ""), "Error parsing init config: Failed to read init config block");
  expect_refused(run_engine(model(), init_block(model(), {{"unembed_quant", "BF16"}})),
                 "Error: unembed_quant does not support 'none' or 'ternary'");
  expect_refused(run_engine(model(), init_block(model(), {{"lora_quant", "ternary"}})),
                 "Error parsing init config: Unknown value for lora_quant: ternary");
}

TEST_F(Startup, MissingFilesNameTheQuotedDirectory) {
  const fs::path missing = root_->path() / "no \"such\" dir";
  expect_refused(run_engine(missing, init_block(model())), "Error: Could not open model files in " + quoted(missing));
  EXPECT_NE(quoted(missing).find("no \\\"such\\\" dir\""), std::string::npos);
}

// The directory comes from the command line as the system passes it (on
// Windows the wide-character one, since no single-byte code page spells
// this name), so the model opens, and a missing one is named in UTF-8.
TEST_F(Startup, AModelDirectoryNamedOutsideAsciiStartsAndAnswers) {
  const fs::path dir = root_->path() / fs::path(u8"modèle-ü-模型");
  fs::create_directories(dir);
  for (const char* file : {"qmodel.tensors", "rope.cache"}) fs::copy_file(model() / file, dir / file);
  const std::string input = init_block(model()) + request({"tokens=5,9,200,31", "temperature=0", "max_tokens=4"});
  const ProcessResult plain = run_engine(model(), input);
  const ProcessResult named = run_engine(dir, input);
  EXPECT_EQ(named.exit_status, 0) << named.err;
  EXPECT_EQ(named.err, "");
  EXPECT_EQ(named.out, plain.out);
  EXPECT_EQ(lines_of(named.out).size(), 6u) << named.out;

  const fs::path missing = dir / fs::path(u8"fehlt-ß");
  expect_refused(run_engine(missing, init_block(model())), "Error: Could not open model files in " + quoted(missing));
}

TEST_F(Startup, HeaderChecks) {
  expect_refused(run_engine(edited_copy("qmodel.tensors", [](std::string& b) { b[0] = 'X'; }), init_block(model())),
                 "Invalid model file! Download the correct model file.");
  expect_refused(run_engine(edited_copy("qmodel.tensors", [](std::string& b) { b[4] = 5; }), init_block(model())),
                 "Model file version 5, engine expects version 3 or 4. Download the correct model file or update "
                 "your engine.");
  expect_refused(run_engine(model(), init_block(model(), {{"arch_type", "2"}})),
                 "Model file architecture 1, engine expects 2. Download the correct model file or use the right "
                 "tensorfile.");
  expect_refused(run_engine(edited_copy("rope.cache", [](std::string& b) { b[4] = 3; }), init_block(model())),
                 "RoPE cache version 3, engine expects version 4. Re-run: make generate MODEL_DIR=<path>.");
  expect_refused(run_engine(edited_copy("rope.cache", [](std::string& b) { b.resize(7); }), init_block(model())),
                 "Invalid RoPE cache file. Re-run: make generate MODEL_DIR=<path>.");
}

TEST_F(Startup, Qwen3_5SectionsAreRefusedOnlyForCode3) {
  const std::vector<std::string> small = {"--hidden", "128", "--intermediate", "128", "--layers", "1",
                                          "--heads", "1", "--kv-heads", "1", "--head-dim", "128",
                                          "--vocab", "64", "--max-pos", "8"};
  auto with = [&](const std::string& name, int arch, std::vector<std::string> sections) {
    const fs::path dir = root_->path() / name;
    std::vector<std::string> options = small;
    options.insert(options.end(), {"--arch", std::to_string(arch)});
    for (const auto& kind : sections) options.insert(options.end(), {"--section", kind});
    make_model(dir, options);
    return run_engine(dir, init_block(dir));
  };
  expect_refused(with("visual", 3, {"3", "2"}),
                 "Error: Qwen3.5 visual sections are present in qmodel.tensors, but multimodal runtime support is "
                 "not implemented yet.");
  expect_refused(with("mtp", 3, {"1", "3"}),
                 "Error: Qwen3.5 MTP sections are present in qmodel.tensors, but MTP runtime support is not "
                 "implemented yet.");
  const ProcessResult llama = with("llama", 2, {"2", "3"});
  EXPECT_EQ(llama.exit_status, 0) << llama.err;
  const ProcessResult plain = with("plain", 3, {"4", "5", "6"});
  EXPECT_EQ(plain.exit_status, 0) << plain.err;
}

TEST_F(Startup, ShapesThatNoLayerCanServeAreRefusedBeforeLoading) {
  const std::vector<std::pair<std::map<std::string, std::string>, std::string>> cases = {
      {{{"num_kv_heads", "0"}}, "Error: num_kv_heads=0 must be at least 1"},
      {{{"hidden_dim", "0"}}, "Error: hidden_dim=0 must be at least 1"},
      {{{"vocab_size", "0"}}, "Error: vocab_size=0 must be at least 1"},
      {{{"max_position_embeddings", "0"}}, "Error: max_position_embeddings=0 must be at least 1"},
      {{{"num_heads", "3"}, {"num_kv_heads", "2"}, {"head_dim", "256"}},
       "Error: num_heads=3 must be a multiple of num_kv_heads=2 (each key/value head serves a whole group of query "
       "heads)"},
      {{{"num_heads", "32"}, {"num_kv_heads", "32"}, {"head_dim", "4"}},
       "Error: head_dim=4 must be a multiple of 8 (rotary embedding turns each head in two halves of whole groups "
       "of 4)"},
      {{{"vocab_size", "4611686018427387904"}},
       "Error: the token embedding (vocab_size=4611686018427387904 x hidden_dim=256) would be larger than 2^64 "
       "bytes"},
  };
  for (const auto& [overrides, message] : cases) {
    SCOPED_TRACE(message);
    expect_refused(run_engine(model(), init_block(model(), overrides)), message);
  }
}

TEST_F(Startup, AModelLargerThanTheMachineIsRefusedWithItsSize) {
  // 2 layers x 2 caches x 2^36 positions x 128 values x 2 bytes = 64 TiB.
  const ProcessResult result = run_engine(model(), init_block(model(), {{"max_position_embeddings", "68719476736"}}));
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err.rfind("Error: this model needs ", 0), 0u) << result.err;
  EXPECT_NE(result.err.find("key/value caches 65536.0 GiB"), std::string::npos) << result.err;
  EXPECT_NE(result.err.find(" this machine has; lower max_position_embeddings or use a smaller model\n"),
            std::string::npos)
      << result.err;
}

TEST_F(Startup, TheModelsOwnShapeMessagesKeepTheirPlace) {
  // A width that the norms need in groups of 128 is the model's to report,
  // even when the config is refusable for another reason too.
  const ProcessResult result =
      run_engine(model(), init_block(model(), {{"hidden_dim", "100"}, {"num_kv_heads", "0"}}));
  EXPECT_TRUE(ended_by_abort(result)) << result.exit_status << ", signal " << result.signal;
  EXPECT_NE(result.err.find("Normalization layer_width must be a multiple of 128, got 100"), std::string::npos)
      << result.err;
  expect_refused(run_engine(model(), init_block(model(), {{"arch_type", "9"}})),
                 "Model file architecture 1, engine expects 9. Download the correct model file or use the right "
                 "tensorfile.");
}

TEST_F(Startup, MoreThreadsThanUsableCpusWarnOnceAndServeTheSameTokens) {
  const std::uint64_t threads = usable_cpu_count() + 2;
  const std::string ask = request({"tokens=5,9,200,31", "temperature=0", "max_tokens=10"});
  const ProcessResult crowded =
      run_engine(model(), init_block(model(), {{"num_threads", std::to_string(threads)}}) + ask);
  const ProcessResult single = run_engine(model(), init_block(model(), {{"num_threads", "1"}}) + ask);
  EXPECT_EQ(crowded.exit_status, 0);
  EXPECT_EQ(crowded.err, "Warning: " + std::to_string(threads) + " threads but this process may use only " +
                             std::to_string(threads - 2) +
                             " CPUs (affinity mask and CPU quota); every step waits for threads without a core: "
                             "set num_threads=" +
                             std::to_string(threads - 2) + "\n");
  EXPECT_EQ(single.err, "");
  EXPECT_EQ(crowded.out, single.out);
}

// QUORVEL_KERNEL_SET in this process, and so in the engines it starts, while the object lives.
class ForcedKernelSet {
 public:
#if defined(_WIN32)
  explicit ForcedKernelSet(const std::string& name) { _putenv_s("QUORVEL_KERNEL_SET", name.c_str()); }
  ~ForcedKernelSet() { _putenv_s("QUORVEL_KERNEL_SET", ""); }  // an empty value removes it
#else
  explicit ForcedKernelSet(const std::string& name) { setenv("QUORVEL_KERNEL_SET", name.c_str(), 1); }
  ~ForcedKernelSet() { unsetenv("QUORVEL_KERNEL_SET"); }
#endif
  ForcedKernelSet(const ForcedKernelSet&) = delete;
  ForcedKernelSet& operator=(const ForcedKernelSet&) = delete;
};

TEST_F(Startup, EveryKernelSetThisProcessorRunsCanBeForcedAndServesTheSameTokens) {
  const std::string input = init_block(model()) + request({"tokens=5,9,200,31", "temperature=0", "max_tokens=10"});
  const ProcessResult chosen = run_engine(model(), input);
  ASSERT_EQ(chosen.exit_status, 0) << chosen.err;
  for (const kernels::KernelSet& set : kernels::kernel_sets()) {
    if (!set.supported()) continue;
    const ForcedKernelSet forced(set.name);
    const ProcessResult result = run_engine(model(), input);
    EXPECT_EQ(result.exit_status, 0) << set.name << ": " << result.err;
    EXPECT_EQ(result.err, "") << set.name;
    EXPECT_EQ(result.out, chosen.out) << set.name;
  }
}

TEST_F(Startup, AForcedKernelSetThatCannotRunIsRefusedWithTheSetsThatCan) {
  std::string runnable;
  for (const kernels::KernelSet& set : kernels::kernel_sets()) {
    if (set.supported()) runnable += (runnable.empty() ? "" : ", ") + std::string(set.name);
  }
  const ForcedKernelSet forced("avx9");
  expect_refused(run_engine(model(), init_block(model())),
                 "Error: QUORVEL_KERNEL_SET=avx9 names no kernel set of this build; this processor runs " + runnable);
}

TEST_F(Startup, AFileCutInsideTheLastLayerEndsAbnormallyWithTheReadersMessage) {
  const fs::path dir = edited_copy("qmodel.tensors", [](std::string& b) { b.resize(b.size() - 10); });
  const ProcessResult result = run_engine(dir, init_block(model()));
  EXPECT_TRUE(ended_by_abort(result)) << result.exit_status << ", signal " << result.signal;
  EXPECT_NE(result.err.find("Could not read in Bit Linear: read_bytes ("), std::string::npos) << result.err;
  EXPECT_NE(result.err.find("Failed to read BitLinear weights"), std::string::npos) << result.err;
}

}  // namespace
}  // namespace quorvel::e2e
