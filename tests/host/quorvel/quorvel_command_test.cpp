// The quorvel command against the real engine, on a random model with the published Llama 3
// tokenizer: run and chat stream the engine's own greedy tokens as text, chat turns send only what
// the cache lacks, a stop string ends the text and rewinds the cache, an engine that dies or fails
// to start is reported, and tokenize/detokenize agree with the library.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "host/engine_process.h"
#include "host/text/chat_format.h"
#include "host/text/tokenizer.h"
#include "host/text/utf8.h"
#include "support/small_llama3_model.h"

namespace quorvel::cli {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using text::TokenId;

constexpr TokenId kBeginOfText = 128000;

const text::Tokenizer& llama3() {
  static const text::Tokenizer tokenizer(QUORVEL_LLAMA3_TOKENIZER);
  return tokenizer;
}

std::vector<TokenId> ids(const std::string& text) { return llama3().encode(text, false); }

std::string read_file(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

void write_script(const fs::path& path, const std::string& text) {
  std::ofstream(path) << "#!/bin/bash\n" << text;
  fs::permissions(path, fs::perms::owner_all);
}

// One request block as the engine read it.
struct Block {
  std::uint64_t kv_position = 0;
  std::vector<TokenId> tokens;
};

std::vector<TokenId> id_list(const std::string& text, char separator) {
  std::vector<TokenId> list;
  std::istringstream in(text);
  for (std::string item; std::getline(in, item, separator);) {
    if (!item.empty()) list.push_back(static_cast<TokenId>(std::stoll(item)));
  }
  return list;
}

// The request blocks of a log of the engine's standard input (the init block is left out).
std::vector<Block> requests_in(const std::string& log) {
  std::istringstream in(log);
  std::vector<Block> blocks;
  bool init = true;
  for (std::string count; std::getline(in, count);) {
    Block block;
    for (int n = std::stoi(count); n > 0; --n) {
      std::string line;
      std::getline(in, line);
      if (line.starts_with("kv_position=")) block.kv_position = std::stoull(line.substr(12));
      if (line.starts_with("tokens=")) block.tokens = id_list(line.substr(7), ',');
    }
    if (!init) blocks.push_back(block);
    init = false;
  }
  return blocks;
}

class QuorvelCommand : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    std::string pattern = (fs::temp_directory_path() / "quorvel-command-XXXXXX").string();
    dir_ = new fs::path(mkdtemp(pattern.data()));
    ASSERT_EQ(testing::make_small_llama3_model(model_dir(), fs::path(QUORVEL_LLAMA3_TOKENIZER).parent_path()), "");
    // An engine that logs what it reads and what it prints.
    write_script(recorder(), "tee -a '" + (*dir_ / "requests").string() + "' | '" + QUORVEL_ENGINE_BINARY +
                                 "' \"$@\" | tee -a '" + (*dir_ / "answers").string() + "'\n");
  }
  static void TearDownTestSuite() {
    fs::remove_all(*dir_);
    delete dir_;
  }
  void SetUp() override {
    fs::remove(*dir_ / "requests");
    fs::remove(*dir_ / "answers");
  }

  static fs::path model_dir() { return *dir_ / "model"; }
  static fs::path recorder() { return *dir_ / "recording-engine"; }
  static std::vector<Block> requests() { return requests_in(read_file(*dir_ / "requests")); }
  static std::vector<std::uint64_t> positions() {
    // The position line follows each answer's end id; with -n small every answer ends at its limit.
    std::vector<std::uint64_t> found;
    const std::vector<TokenId> lines = id_list(read_file(*dir_ / "answers"), '\n');
    for (std::size_t i = 1; i < lines.size(); ++i) {
      if (lines[i - 1] == 128001 || lines[i - 1] == 128009) found.push_back(static_cast<std::uint64_t>(lines[i]));
    }
    return found;
  }

  static host::ProcessResult quorvel(std::vector<std::string> args, const std::string& input = "") {
    args.insert(args.begin(), QUORVEL_COMMAND_BINARY);
    return host::run_process(args, input);
  }

  static fs::path* dir_;
};

fs::path* QuorvelCommand::dir_ = nullptr;

// The text of generated ids as quorvel prints it: end ids left out.
std::string text_of(std::vector<TokenId> generated) {
  std::erase_if(generated, [](TokenId id) { return id == 128001 || id == 128009; });
  return text::with_replacements(llama3().decode(generated));
}

TEST_F(QuorvelCommand, RunPrintsTheEnginesGreedyTokensAsTextWithItsFigures) {
  const host::ProcessResult json_run =
      quorvel({"run", model_dir().string(), "-p", "Hello, world", "-n", "12", "--temp", "0", "--json"});
  ASSERT_EQ(json_run.exit_status, 0) << json_run.err;
  const json report = json::parse(json_run.out);
  const std::vector<TokenId> generated = report["tokens"].get<std::vector<TokenId>>();
  EXPECT_EQ(report["prompt_tokens"], 4);  // <|begin_of_text|> Hello , world
  EXPECT_EQ(report["generated_tokens"], generated.size());
  EXPECT_EQ(report["text"], text_of(generated));
  EXPECT_EQ(report["finish_reason"], generated.size() == 13 ? "length" : "stop");

  // The same request sent to the engine by hand gives the same ids.
  const host::ProcessResult engine = host::run_process(
      {QUORVEL_ENGINE_BINARY, model_dir().string()},
      read_file(model_dir() / "init.txt") + "4\nkv_position=0\ntokens=128000,9906,11,1917\ntemperature=0\nmax_tokens=12\n");
  std::vector<TokenId> lines = id_list(engine.out, '\n');
  lines.pop_back();  // the position
  EXPECT_EQ(generated, lines);

  const host::ProcessResult plain = quorvel({"run", model_dir().string(), "-p", "Hello, world", "-n", "12", "--temp", "0"});
  EXPECT_EQ(plain.out, report["text"].get<std::string>());
  EXPECT_TRUE(plain.err.starts_with("prompt 4 tokens, ")) << plain.err;
  EXPECT_NE(plain.err.find("generated " + std::to_string(generated.size()) + " tokens"), std::string::npos);
}

TEST_F(QuorvelCommand, AStopStringEndsTheTextWhereItFirstBegins) {
  const std::vector<std::string> run{"run", model_dir().string(), "-p", "Once", "-n", "16", "--temp", "0"};
  const std::string text = quorvel(run).out;
  ASSERT_GT(text.size(), 12u);
  const std::string stop = text.substr(text.size() / 2, 3);
  std::vector<std::string> stopped = run;
  stopped.insert(stopped.end(), {"--stop", stop, "--json"});
  const host::ProcessResult result = quorvel(stopped);
  ASSERT_EQ(result.exit_status, 0) << result.err;
  const json report = json::parse(result.out);
  EXPECT_EQ(report["text"], text.substr(0, text.find(stop)));
  EXPECT_EQ(report["finish_reason"], "stop");
}

TEST_F(QuorvelCommand, ChatTurnsSendOnlyWhatTheCacheLacks) {
  const host::ProcessResult chat = quorvel(
      {"chat", model_dir().string(), "--engine", recorder().string(), "-n", "6", "--temp", "0", "--system", "Be brief."},
      "Hello there\n/stats\nHow are you?\n");
  ASSERT_EQ(chat.exit_status, 0) << chat.err;
  const std::vector<Block> blocks = requests();
  ASSERT_EQ(blocks.size(), 3u);  // the load check and two turns
  const std::vector<std::uint64_t> ends = positions();
  ASSERT_EQ(ends.size(), 3u);
  EXPECT_EQ(blocks[1].kv_position, 0u);
  EXPECT_EQ(blocks[2].kv_position, ends[1]);
  const text::ChatFormat llama3_chat = text::ChatFormat::named("llama3");
  EXPECT_EQ(blocks[2].tokens, llama3().encode(llama3_chat.next_turn("How are you?")));
  EXPECT_NE(chat.err.find("context: " + std::to_string(ends[1]) + " of 512 positions used, 1 turn(s)"),
            std::string::npos)
      << chat.err;
}

// With -n 12 the rest of the answer after the stop is short enough to be read and dropped, never
// left to a restart of the engine, so the one engine's cache can be followed through the logs.
TEST_F(QuorvelCommand, AStopStringInAChatRewindsTheCacheToTheAcceptedText) {
  const std::vector<std::string> chat{"chat", model_dir().string(), "--engine", recorder().string(), "-n", "12",
                                      "--temp", "0", "--chat-format", "bitnet"};
  const std::string first_reply = quorvel(chat, "Tell me\n").out;
  ASSERT_GT(first_reply.size(), 8u);
  const std::string stop = first_reply.substr(first_reply.size() / 2, 2);
  const std::string accepted = first_reply.substr(0, first_reply.find(stop));
  SetUp();
  std::vector<std::string> stopped = chat;
  stopped.insert(stopped.end(), {"--stop", stop});
  const host::ProcessResult result = quorvel(stopped, "Tell me\nMore\n");
  ASSERT_EQ(result.exit_status, 0) << result.err;
  EXPECT_TRUE(result.out.starts_with(accepted + "\n")) << result.out;
  const std::vector<Block> blocks = requests();
  ASSERT_EQ(blocks.size(), 3u);
  EXPECT_LT(blocks[2].kv_position, positions()[1]);
  // What the cache holds after the second turn is the conversation with the reply cut at the stop.
  std::vector<TokenId> cache = blocks[1].tokens;
  const std::vector<TokenId> answer = id_list(read_file(*dir_ / "answers"), '\n');
  const std::size_t reply_start = 2;  // the load check's end id and position
  cache.insert(cache.end(), answer.begin() + reply_start,
               answer.begin() + static_cast<std::ptrdiff_t>(reply_start + blocks[2].kv_position - cache.size()));
  cache.insert(cache.end(), blocks[2].tokens.begin(), blocks[2].tokens.end());
  const text::ChatFormat bitnet = text::ChatFormat::named("bitnet");
  EXPECT_EQ(llama3().decode(cache), joined(bitnet.render(std::vector<text::ChatMessage>{
                                        {"user", "Tell me"}, {"assistant", accepted}, {"user", "More"}})));
}

// A stand-in engine that answers the load check, prints two tokens of the first request and then
// does `what_next`.
fs::path scripted_engine(const fs::path& dir, const std::string& name, const std::string& what_next) {
  const fs::path engine = dir / name;
  write_script(engine,
               "block() { read -r n || exit 0; for ((i = 0; i < n; i++)); do read -r line; done; }\n"
               "block; block; echo 128001; echo 0; block; echo 9906; echo 11; " + what_next + "\n");
  return engine;
}

TEST_F(QuorvelCommand, AnEngineThatDiesOrTalksNonsenseIsReportedAndNeverWaitedFor) {
  const fs::path dying = scripted_engine(*dir_, "dying-engine", "kill -KILL $$");
  const host::ProcessResult run = quorvel({"run", model_dir().string(), "--engine", dying.string(), "-p", "Hi"});
  EXPECT_EQ(run.exit_status, 3);
  EXPECT_EQ(run.out, "Hello,");
  EXPECT_EQ(run.err, "Error: the engine (" + dying.string() + ") was killed by signal 9 (Killed)\n");

  // It then waits for input it will never get, its output still open: quorvel must not wait for it.
  const fs::path talking = scripted_engine(*dir_, "talking-engine", "echo junk; exec sleep 30");
  const host::ProcessResult garbled = quorvel({"chat", model_dir().string(), "--engine", talking.string()}, "Hi\n");
  EXPECT_EQ(garbled.exit_status, 3);
  EXPECT_EQ(garbled.err, "Error: the engine (" + talking.string() + ") printed 'junk' where a number belongs\n");
}

TEST_F(QuorvelCommand, TheEnginesOwnStartupMessageReachesTheUserUnchanged) {
  const fs::path broken = *dir_ / "no-weights";
  fs::create_directory(broken);
  for (const char* name : {"init.txt", "tokenizer.json"}) fs::copy_file(model_dir() / name, broken / name);
  const host::ProcessResult run = quorvel({"run", broken.string(), "-p", "Hi"});
  EXPECT_EQ(run.exit_status, 3);
  EXPECT_EQ(run.err, "Error: Could not open model files in \"" + broken.string() + "\"\nError: the engine (" +
                         fs::path(QUORVEL_ENGINE_BINARY).string() + ") exited with status 1\n");
  fs::remove_all(broken);
}

// The chat format comes from chat_template.jinja before tokenizer_config.json; a missing or unknown
// template, or a config that is not JSON, is refused before the engine starts.
TEST_F(QuorvelCommand, TheChatTemplateIsRecognisedOrRefused) {
  const fs::path dir = *dir_ / "templates";
  fs::create_directory(dir);
  for (const char* name : {"init.txt", "tokenizer.json", "qmodel.tensors", "rope.cache"}) {
    fs::copy_file(model_dir() / name, dir / name, fs::copy_options::overwrite_existing);
  }
  const std::vector<std::string> run{"run", dir.string(), "--chat", "-p", "Hi", "-n", "1", "--json"};
  const std::string config = (dir / "tokenizer_config.json").string();
  const std::vector<std::pair<std::string, std::string>> refused{
      {R"({"chat_template": "{{ messages }}"})", "Error: " + config + ": its chat template is none of"},
      {R"({"bos_token": "<s>"})", "Error: " + config + ": has no chat template"},
      {"not json", "Error: " + config + ": is not a JSON object"}};
  for (const auto& [text, message] : refused) {
    std::ofstream(config) << text;
    const host::ProcessResult result = quorvel(run);
    EXPECT_EQ(result.exit_status, 1) << text;
    EXPECT_TRUE(result.err.starts_with(message)) << result.err;
  }
  std::ofstream(config) << R"({"chat_template": "{{ messages }}"})";
  std::ofstream(dir / "chat_template.jinja") << "{{- '<|im_start|>' + message.role }}";
  const host::ProcessResult chatml = quorvel(run);
  ASSERT_EQ(chatml.exit_status, 0) << chatml.err;
  const std::vector<text::ChatMessage> turn{{"user", "Hi"}};
  EXPECT_EQ(json::parse(chatml.out)["prompt_tokens"],
            llama3().encode(text::ChatFormat::named("chatml").render(turn)).size());
  fs::remove_all(dir);
}

TEST_F(QuorvelCommand, TokenizeAndDetokenizeAgreeWithTheLibrary) {
  const std::string text = "Say <|eot_id|> twice:\t<|eot_id|>\n";
  const host::ProcessResult special = quorvel({"tokenize", model_dir().string()}, text);
  const host::ProcessResult plain = quorvel({"tokenize", "--tokenizer", QUORVEL_LLAMA3_TOKENIZER, "--no-special"}, text);
  std::string expected_special, expected_plain;
  for (TokenId id : llama3().encode(text, true)) expected_special += (expected_special.empty() ? "" : " ") + std::to_string(id);
  for (TokenId id : ids(text)) expected_plain += (expected_plain.empty() ? "" : " ") + std::to_string(id);
  EXPECT_EQ(special.out, expected_special + "\n");
  EXPECT_EQ(plain.out, expected_plain + "\n");
  EXPECT_EQ(quorvel({"detokenize", model_dir().string()}, special.out).out, text);
  EXPECT_EQ(quorvel({"detokenize", model_dir().string()}, plain.out).out, text);

  const host::ProcessResult bad_id = quorvel({"detokenize", model_dir().string()}, "9906 x1");
  EXPECT_EQ(bad_id.exit_status, 1);
  EXPECT_EQ(bad_id.err, "Error: 'x1' is not a token id\n");
  const host::ProcessResult bad_text = quorvel({"tokenize", model_dir().string()}, "ok\xC3(");
  EXPECT_EQ(bad_text.exit_status, 1);
  EXPECT_EQ(bad_text.err, "Error: input is not valid UTF-8 at byte 2\n");
  EXPECT_EQ(quorvel({"run", model_dir().string()}).exit_status, 2);  // no prompt
}

}  // namespace
}  // namespace quorvel::cli
