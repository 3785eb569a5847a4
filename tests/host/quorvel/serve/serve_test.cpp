// quorvel serve over real HTTP on the loopback interface, with the real engine on a random model and
// the published Llama 3 tokenizer: completions are the engine's own greedy tokens in the OpenAI
// shapes, whole and streamed; bad requests get OpenAI-shaped errors; a second turn reads only what
// the cache lacks; a client that leaves mid-stream, a killed engine and a full queue leave the server
// serving.
#include <gtest/gtest.h>
#include <httplib.h>
#include <signal.h>

#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <nlohmann/json.hpp>
#include <sstream>
#include <thread>

#include "host/engine_process.h"
#include "host/quorvel/serve/server.h"
#include "host/text/chat_format.h"
#include "support/small_llama3_model.h"

namespace quorvel::serve {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using text::TokenId;

constexpr TokenId kEndOfText = 128001, kEndOfTurn = 128009;

const text::Tokenizer& llama3() {
  static const text::Tokenizer tokenizer(QUORVEL_LLAMA3_TOKENIZER);
  return tokenizer;
}

std::string read_file(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

// A server on a free port, serving from its own thread, its log lines kept.
class RunningServer {
 public:
  explicit RunningServer(ServeOptions options) {
    options.port = 0;
    options.engine = QUORVEL_ENGINE_BINARY;
    server_ = std::make_unique<Server>(options, [this](const std::string& line) { keep(line); });
    port_ = server_->bind();
    thread_ = std::thread([this] { server_->run(); });
  }
  ~RunningServer() {
    server_->stop();
    thread_.join();
  }

  httplib::Client client(const std::string& key = "") const {
    httplib::Client client("127.0.0.1", port_);
    client.set_read_timeout(60);
    if (!key.empty()) client.set_bearer_token_auth(key);
    return client;
  }
  Server& server() { return *server_; }

  // The log line that starts with `start`, `skip` such lines after the first, once it has been
  // written (the line of a request follows its response); empty when none comes within 20 s.
  std::string line_starting(const std::string& start, std::size_t skip = 0) {
    std::unique_lock lock(mutex_);
    std::string found;
    const bool written = logged_.wait_for(lock, std::chrono::seconds(20), [&] {
      std::size_t seen = 0;
      for (const std::string& line : lines_) {
        if (line.starts_with(start) && seen++ == skip) found = line;
      }
      return !found.empty();
    });
    return written ? found : "";
  }

 private:
  void keep(const std::string& line) {
    {
      const std::lock_guard lock(mutex_);
      lines_.push_back(line);
    }
    logged_.notify_all();
  }

  std::unique_ptr<Server> server_;
  int port_ = 0;
  std::thread thread_;
  std::mutex mutex_;
  std::condition_variable logged_;
  std::vector<std::string> lines_;
};

class Serve : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    std::string pattern = (fs::temp_directory_path() / "quorvel-serve-XXXXXX").string();
    dir_ = new fs::path(mkdtemp(pattern.data()));
    ASSERT_EQ(testing::make_small_llama3_model(model_dir(), fs::path(QUORVEL_LLAMA3_TOKENIZER).parent_path()), "");
  }
  static void TearDownTestSuite() {
    fs::remove_all(*dir_);
    delete dir_;
  }
  static fs::path model_dir() { return *dir_ / "model"; }
  static ServeOptions options(std::size_t parallel = 1) {
    ServeOptions options;
    options.model_dir = model_dir();
    options.parallel = parallel;
    return options;
  }

  // The text of the engine's greedy answer to `prompt`, asked by hand with the server's end tokens.
  static std::string greedy_text(const std::vector<TokenId>& prompt, int max_tokens) {
    std::string init = read_file(model_dir() / "init.txt");
    init.replace(init.find("eos_tokens=128001"), 17, "eos_tokens=128009,128001");
    std::string ids;
    for (const TokenId id : prompt) ids += (ids.empty() ? "" : ",") + std::to_string(id);
    const host::ProcessResult engine =
        host::run_process({QUORVEL_ENGINE_BINARY, model_dir().string()},
                          init + "4\nkv_position=0\ntokens=" + ids + "\ntemperature=0\nmax_tokens=" +
                              std::to_string(max_tokens) + "\n");
    std::vector<TokenId> generated;
    std::istringstream lines(engine.out);
    for (std::string line; std::getline(lines, line);) generated.push_back(static_cast<TokenId>(std::stoll(line)));
    generated.pop_back();  // the position
    std::erase_if(generated, [](TokenId id) { return id == kEndOfText || id == kEndOfTurn; });
    return llama3().decode(generated);
  }

  static fs::path* dir_;
};

fs::path* Serve::dir_ = nullptr;

const json kMessages = json::array({{{"role", "system"}, {"content", "Be brief."}}, {{"role", "user"}, {"content", "Hello"}}});

std::vector<TokenId> chat_prompt(const json& messages) {
  std::vector<text::ChatMessage> chat;
  for (const json& message : messages) chat.push_back({message["role"], message["content"]});
  return llama3().encode(text::ChatFormat::named("llama3").render(chat));
}

// The data of each server-sent event in a stream's body.
std::vector<std::string> events_of(const std::string& body) {
  std::vector<std::string> events;
  std::size_t at = 0;
  while ((at = body.find("data: ", at)) != std::string::npos) {
    const std::size_t end = body.find("\n\n", at);
    events.push_back(body.substr(at + 6, end - at - 6));
    at = end;
  }
  return events;
}

json post(httplib::Client& client, const std::string& path, const json& body, int expected_status = 200) {
  const httplib::Result result = client.Post(path, body.dump(), "application/json");
  EXPECT_TRUE(result) << "no answer to " << path;
  if (!result) return json();
  EXPECT_EQ(result->status, expected_status) << result->body;
  return json::parse(result->body, nullptr, false);
}

TEST_F(Serve, CompletionsAreTheEnginesGreedyTokensInTheOpenAIShape) {
  RunningServer running(options());
  httplib::Client client = running.client();
  const json request{{"messages", kMessages}, {"max_tokens", 8}, {"temperature", 0}};
  const json whole = post(client, "/v1/chat/completions", request);
  const std::vector<TokenId> prompt = chat_prompt(kMessages);
  const std::string expected = greedy_text(prompt, 8);
  EXPECT_EQ(whole["object"], "chat.completion");
  EXPECT_EQ(whole["model"], "model");
  EXPECT_EQ(whole["choices"][0]["message"]["role"], "assistant");
  EXPECT_EQ(whole["choices"][0]["message"]["content"], expected);
  const json& usage = whole["usage"];
  EXPECT_EQ(usage["prompt_tokens"], prompt.size());
  EXPECT_EQ(usage["total_tokens"], usage["prompt_tokens"].get<int>() + usage["completion_tokens"].get<int>());
  EXPECT_EQ(whole["choices"][0]["finish_reason"], usage["completion_tokens"] == 8 ? "length" : "stop");

  json streamed_request = request;
  streamed_request["stream"] = true;
  streamed_request["stream_options"] = {{"include_usage", true}};
  const httplib::Result stream = client.Post("/v1/chat/completions", streamed_request.dump(), "application/json");
  ASSERT_TRUE(stream);
  EXPECT_EQ(stream->get_header_value("Content-Type"), "text/event-stream");
  const std::vector<std::string> events = events_of(stream->body);
  ASSERT_GE(events.size(), 4u) << stream->body;
  EXPECT_EQ(events.back(), "[DONE]");
  EXPECT_EQ(json::parse(events[0])["choices"][0]["delta"]["role"], "assistant");
  std::string text;
  for (std::size_t i = 1; i + 3 < events.size(); ++i) text += json::parse(events[i])["choices"][0]["delta"]["content"];
  EXPECT_EQ(text, expected);
  EXPECT_EQ(json::parse(events[events.size() - 3])["choices"][0]["finish_reason"], whole["choices"][0]["finish_reason"]);
  EXPECT_EQ(json::parse(events[events.size() - 2])["usage"]["completion_tokens"], usage["completion_tokens"]);

  const json completion = post(client, "/v1/completions", {{"prompt", "Once upon a time"}, {"max_tokens", 6}, {"temperature", 0}});
  std::vector<TokenId> plain{128000};
  for (const TokenId id : llama3().encode("Once upon a time", false)) plain.push_back(id);
  EXPECT_EQ(completion["object"], "text_completion");
  EXPECT_EQ(completion["choices"][0]["text"], greedy_text(plain, 6));
  EXPECT_EQ(completion["usage"]["prompt_tokens"], plain.size());

  const json models = json::parse(client.Get("/v1/models")->body);
  ASSERT_EQ(models["data"].size(), 1u);
  EXPECT_EQ(models["data"][0]["id"], "model");
  const json health = json::parse(client.Get("/health")->body);
  EXPECT_EQ(health["slots_idle"], 1);
}

TEST_F(Serve, BadRequestsGetOpenAIErrorsAndTheServerGoesOn) {
  ServeOptions bounded = options();
  bounded.context = 64;
  bounded.max_body_bytes = 4000;
  bounded.api_key = "sk-right";
  RunningServer running(bounded);
  httplib::Client client = running.client("sk-right");
  const std::string deep = std::string(200, '[') + std::string(200, ']');
  struct Case {
    std::string path, body, param;
  };
  const std::vector<Case> cases{
      {"/v1/chat/completions", "", ""},
      {"/v1/chat/completions", "{", ""},
      {"/v1/chat/completions", "[]", ""},
      {"/v1/chat/completions", "{\"messages\": [}", ""},
      {"/v1/chat/completions", "{\"messages\": [{\"role\": \"user\", \"content\": \"\xff\"}]}", ""},
      {"/v1/chat/completions", "{\"messages\": " + deep + "}", ""},
      {"/v1/chat/completions", R"({"model": "x"})", "messages"},
      {"/v1/chat/completions", R"({"messages": "hi"})", "messages"},
      {"/v1/chat/completions", R"({"messages": []})", "messages"},
      {"/v1/chat/completions", R"({"messages": [{"role": "robot", "content": "x"}]})", "messages[0].role"},
      {"/v1/chat/completions", R"({"messages": [{"content": "x"}]})", "messages[0].role"},
      {"/v1/chat/completions", R"({"messages": [{"role": "user", "content": 5}]})", "messages[0].content"},
      {"/v1/chat/completions", R"({"messages": [{"role": "user", "content": [{"type": "image_url"}]}]})",
       "messages[0].content[0]"},
      {"/v1/chat/completions", R"({"messages": [{"role": "user", "content": "x"}], "temperature": "hot"})", "temperature"},
      {"/v1/chat/completions", R"({"messages": [{"role": "user", "content": "x"}], "temperature": 3})", "temperature"},
      {"/v1/chat/completions", R"({"messages": [{"role": "user", "content": "x"}], "max_tokens": 0})", "max_tokens"},
      {"/v1/chat/completions", R"({"messages": [{"role": "user", "content": "x"}], "max_tokens": -4})", "max_tokens"},
      {"/v1/chat/completions", R"({"messages": [{"role": "user", "content": "x"}], "stream": "yes"})", "stream"},
      {"/v1/chat/completions", R"({"messages": [{"role": "user", "content": "x"}], "stop": ["a","b","c","d","e"]})", "stop"},
      {"/v1/chat/completions", R"({"messages": [{"role": "user", "content": "x"}], "n": 2})", "n"},
      {"/v1/chat/completions", R"({"messages": [{"role": "user", "content": "x"}], "seed": 7, "temperature": 0.7})", "seed"},
      {"/v1/chat/completions", R"({"messages": [{"role": "user", "content": "x"}], "frequency_penalty": 0.5})",
       "frequency_penalty"},
      {"/v1/completions", R"({"prompt": 5})", "prompt"},
      {"/v1/completions", R"({"prompt": ["a", "b"]})", "prompt"},
      {"/v1/completions", R"({"prompt": ")" + std::string(300, 'x') + " " + std::string(300, 'y') + R"("})", "prompt"},
  };
  for (const Case& bad : cases) {
    const httplib::Result result = client.Post(bad.path, bad.body, "application/json");
    ASSERT_TRUE(result) << bad.body;
    EXPECT_EQ(result->status, 400) << bad.body << " -> " << result->body;
    const json error = json::parse(result->body, nullptr, false);
    EXPECT_EQ(error["error"]["type"], "invalid_request_error") << result->body;
    EXPECT_FALSE(error["error"]["message"].get<std::string>().empty());
    EXPECT_EQ(error["error"]["param"], bad.param.empty() ? json() : json(bad.param)) << bad.body << " -> " << result->body;
  }
  EXPECT_EQ(json::parse(client.Post("/v1/completions", cases.back().body, "application/json")->body)["error"]["code"],
            "context_length_exceeded");

  EXPECT_EQ(client.Get("/v1/nothing")->status, 404);
  const httplib::Result wrong_method = client.Get("/v1/chat/completions");
  EXPECT_EQ(wrong_method->status, 404);
  EXPECT_EQ(json::parse(wrong_method->body)["error"]["type"], "not_found_error");
  const httplib::Result too_large = client.Post("/v1/completions", std::string(5000, ' '), "application/json");
  EXPECT_EQ(too_large->status, 413);
  EXPECT_EQ(json::parse(too_large->body)["error"]["code"], "request_too_large");

  for (const std::string key : {"", "sk-wrong", "sk-righ", "sk-right!"}) {
    const httplib::Result refused = running.client(key).Get("/v1/models");
    EXPECT_EQ(refused->status, 401) << key;
    EXPECT_EQ(json::parse(refused->body)["error"]["type"], "authentication_error");
  }
  EXPECT_EQ(running.client().Get("/health")->status, 200);

  // Seed with greedy decoding is honoured (every answer is the same), and the server still serves.
  const json fine = post(client, "/v1/chat/completions",
                         {{"messages", kMessages}, {"max_tokens", 2}, {"temperature", 0}, {"seed", 3}});
  EXPECT_EQ(fine["object"], "chat.completion");
}

TEST_F(Serve, ASecondTurnReadsOnlyWhatTheCacheLacks) {
  RunningServer running(options(2));
  httplib::Client client = running.client();
  const json first = post(client, "/v1/chat/completions", {{"messages", kMessages}, {"max_tokens", 6}, {"temperature", 0}});
  json messages = kMessages;
  messages.push_back({{"role", "assistant"}, {"content", first["choices"][0]["message"]["content"]}});
  messages.push_back({{"role", "user"}, {"content", "And then?"}});
  const json second = post(client, "/v1/chat/completions", {{"messages", messages}, {"max_tokens", 6}, {"temperature", 0}});
  const std::size_t first_prompt = first["usage"]["prompt_tokens"];
  const std::size_t second_prompt = second["usage"]["prompt_tokens"];
  const std::size_t cached = second["usage"]["prompt_tokens_details"]["cached_tokens"];
  EXPECT_EQ(second_prompt, chat_prompt(messages).size());
  // The whole first prompt and at least part of the reply come from the cache.
  EXPECT_GT(cached, first_prompt);
  EXPECT_LT(cached, second_prompt);
  const std::string line = running.line_starting("POST /v1/chat/completions 200", 1);
  EXPECT_NE(line.find("slot 0 \xC2\xB7 prompt " + std::to_string(second_prompt) + " tokens (" +
                      std::to_string(cached) + " cached)"),
            std::string::npos)
      << line;
}

TEST_F(Serve, AClientThatLeavesMidStreamDoesNotWedgeItsSlot) {
  RunningServer running(options());
  httplib::Client client = running.client();
  const json request{{"messages", kMessages}, {"max_tokens", 300}, {"temperature", 0}, {"stream", true}};
  httplib::Request leaving;
  leaving.method = "POST";
  leaving.path = "/v1/chat/completions";
  leaving.body = request.dump();
  leaving.set_header("Content-Type", "application/json");
  int chunks = 0;
  leaving.content_receiver = [&](const char*, std::size_t, std::uint64_t, std::uint64_t) { return ++chunks < 3; };
  EXPECT_FALSE(client.send(leaving));  // the client cancelled
  EXPECT_NE(running.line_starting("POST /v1/chat/completions 200").find("the client left before the end"),
            std::string::npos);
  // The only slot serves the next request. Its cache still holds the prompt when the rest of the
  // answer was read and dropped; it is empty when a restart was quicker (this model loads in
  // milliseconds).
  httplib::Client again = running.client();
  const json next = post(again, "/v1/chat/completions", {{"messages", kMessages}, {"max_tokens", 2}});
  const std::size_t cached = next["usage"]["prompt_tokens_details"]["cached_tokens"];
  EXPECT_TRUE(cached == 0 || cached == chat_prompt(kMessages).size() - 1) << cached;
}

// SIGKILL to the engine of slot `index`, which must have one.
void kill_engine(Server& server, std::size_t index) {
  const host::ProcessId pid = server.slots().slot(index).engine_pid();
  ASSERT_GT(pid, 0);
  ASSERT_EQ(kill(static_cast<pid_t>(pid), SIGKILL), 0);
}

TEST_F(Serve, AKilledEngineFailsItsOwnRequestsWith500AndItsSlotStartsAnother) {
  RunningServer running(options(2));
  httplib::Client client = running.client();
  const json request{{"messages", kMessages}, {"max_tokens", 4}, {"temperature", 0}};
  const json before = post(client, "/v1/chat/completions", request);
  kill_engine(running.server(), 0);

  // The request goes back to slot 0, which holds its prompt, and fails there.
  const json failed = post(client, "/v1/chat/completions", request, 500);
  EXPECT_EQ(failed["error"]["type"], "server_error");
  EXPECT_EQ(failed["error"]["code"], "engine_stopped");
  const std::string failure = running.line_starting("POST /v1/chat/completions 500");
  EXPECT_NE(failure.find("slot 0: the engine"), std::string::npos) << failure;
  EXPECT_NE(failure.find("killed by signal 9"), std::string::npos) << failure;
  EXPECT_EQ(running.server().slots().slot(0).engine_pid(), -1);

  // Both slots now hold nothing of the prompt: the one idle longer, slot 1, answers alike.
  const json after = post(client, "/v1/chat/completions", request);
  EXPECT_EQ(after["choices"][0]["message"]["content"], before["choices"][0]["message"]["content"]);
  EXPECT_NE(running.line_starting("POST /v1/chat/completions 200", 1).find("slot 1"), std::string::npos);

  // A stream that has begun ends with an error event instead of [DONE].
  kill_engine(running.server(), 1);
  json streamed = request;
  streamed["stream"] = true;
  const httplib::Result stream = client.Post("/v1/chat/completions", streamed.dump(), "application/json");
  ASSERT_TRUE(stream);
  EXPECT_EQ(stream->status, 200);
  const std::vector<std::string> events = events_of(stream->body);
  ASSERT_FALSE(events.empty());
  EXPECT_EQ(json::parse(events.back())["error"]["code"], "engine_stopped") << stream->body;
  EXPECT_NE(running.line_starting("POST /v1/chat/completions 500", 1).find("slot 1: the engine"), std::string::npos);

  // Slot 0 starts a new engine for its next request, which reads everything anew.
  const json restarted = post(client, "/v1/chat/completions", request);
  EXPECT_EQ(restarted["choices"][0]["message"]["content"], before["choices"][0]["message"]["content"]);
  EXPECT_EQ(restarted["usage"]["prompt_tokens_details"]["cached_tokens"], 0);
  const host::ProcessId new_engine = running.server().slots().slot(0).engine_pid();
  ASSERT_GT(new_engine, 0);
  EXPECT_NE(running.line_starting("slot 0: engine pid " + std::to_string(new_engine) + " ready"), "");
}

TEST_F(Serve, RequestsWaitForASlotInTurnAndBeyondTheQueueAreTurnedAway) {
  ServeOptions one_waiting = options();
  one_waiting.max_queue = 1;
  RunningServer running(one_waiting);
  const std::vector<TokenId> prompt{128000, 9906};
  auto held = running.server().slots().acquire(prompt);

  json waited;
  std::thread waiter([&] {
    httplib::Client client = running.client();
    waited = post(client, "/v1/completions", {{"prompt", "Hi"}, {"max_tokens", 2}});
  });
  while (running.server().slots().occupancy().waiting == 0) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  httplib::Client client = running.client();
  const json busy = post(client, "/v1/completions", {{"prompt", "Hi"}, {"max_tokens", 2}}, 503);
  EXPECT_EQ(busy["error"]["code"], "server_busy");
  EXPECT_EQ(json::parse(client.Get("/health")->body)["requests_waiting"], 1);

  held.reset();
  waiter.join();
  EXPECT_EQ(waited["object"], "text_completion");
}

}  // namespace
}  // namespace quorvel::serve
