// A small stand-in for an OpenAI-compatible server, on a free loopback port, for the client's
// tests. Replies are "reply N" (N counts requests from 1), streamed as "reply", " N" chunks with a
// pause between them. Some prompts ask for trouble: "busy" gets a 503, "fail" an error event after
// the first chunk (or a 500), "cut" a stream that stops without [DONE]. Every request needs the
// key "secret".
#pragma once

#include <httplib.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

namespace quorvel::serve_load {

class FakeChatServer {
 public:
  static constexpr std::chrono::milliseconds kChunkPause{60};

  FakeChatServer() {
    server_.Post("/v1/chat/completions",
                 [this](const httplib::Request& in, httplib::Response& out) { answer(in, out, true); });
    server_.Post("/v1/completions",
                 [this](const httplib::Request& in, httplib::Response& out) { answer(in, out, false); });
    port_ = server_.bind_to_any_port("127.0.0.1");
    thread_ = std::thread([this] { server_.listen_after_bind(); });
    while (!server_.is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  ~FakeChatServer() {
    server_.stop();
    thread_.join();
  }

  std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }
  // The bodies of the requests received so far.
  std::vector<nlohmann::json> bodies() {
    std::lock_guard lock(mutex_);
    return bodies_;
  }

 private:
  static std::string error_body(const std::string& message) {
    return nlohmann::json{{"error", {{"message", message}, {"type", "server_error"}, {"code", 500}}}}.dump();
  }

  static nlohmann::json usage() {
    return {{"prompt_tokens", 5},
            {"completion_tokens", 2},
            {"total_tokens", 7},
            {"prompt_tokens_details", {{"cached_tokens", 3}}}};
  }

  static std::string chunk(const std::string& text, bool chat) {
    const nlohmann::json choice = chat ? nlohmann::json{{"index", 0}, {"delta", {{"content", text}}}}
                                       : nlohmann::json{{"index", 0}, {"text", text}};
    return "data: " + nlohmann::json{{"choices", {choice}}}.dump() + "\n\n";
  }

  // The last user message of a chat, or a completion's prompt.
  static std::string prompt_of(const nlohmann::json& body, bool chat) {
    return chat ? body["messages"].back()["content"].get<std::string>() : body["prompt"].get<std::string>();
  }

  void answer(const httplib::Request& in, httplib::Response& out, bool chat) {
    const nlohmann::json body = nlohmann::json::parse(in.body);
    int number = 0;
    {
      std::lock_guard lock(mutex_);
      bodies_.push_back(body);
      number = static_cast<int>(bodies_.size());
    }
    const std::string prompt = prompt_of(body, chat);
    if (in.get_header_value("Authorization") != "Bearer secret") {
      out.status = 401;
      out.set_content(error_body("wrong key"), "application/json");
    } else if (prompt == "busy") {
      out.status = 503;
      out.set_content(error_body("the queue is full"), "application/json");
    } else if (body["stream"].get<bool>()) {
      stream(out, chat, number, prompt);
    } else if (prompt == "fail") {
      out.status = 500;
      out.set_content(error_body("the engine stopped"), "application/json");
    } else {
      whole(out, chat, number);
    }
  }

  static void whole(httplib::Response& out, bool chat, int number) {
    const std::string text = "reply " + std::to_string(number);
    const nlohmann::json choice =
        chat ? nlohmann::json{{"index", 0}, {"message", {{"role", "assistant"}, {"content", text}}}}
             : nlohmann::json{{"index", 0}, {"text", text}};
    const nlohmann::json response{{"choices", {choice}}, {"usage", usage()}};
    out.set_content(response.dump(), "application/json");
  }

  static void stream(httplib::Response& out, bool chat, int number, const std::string& prompt) {
    out.set_chunked_content_provider("text/event-stream", [chat, number, prompt](std::size_t, httplib::DataSink& sink) {
      const auto send = [&sink](const std::string& event) { return sink.write(event.data(), event.size()); };
      send(chunk("reply", chat));
      std::this_thread::sleep_for(kChunkPause);
      if (prompt == "cut") return false;
      if (prompt == "fail") {
        send("data: " + error_body("the engine stopped") + "\n\n");
      } else {
        send(chunk(" " + std::to_string(number), chat));
        send("data: " + nlohmann::json{{"choices", nlohmann::json::array()}, {"usage", usage()}}.dump() + "\n\n");
        send("data: [DONE]\n\n");
      }
      sink.done();
      return true;
    });
  }

  httplib::Server server_;
  std::thread thread_;
  int port_ = 0;
  std::mutex mutex_;
  std::vector<nlohmann::json> bodies_;
};

}  // namespace quorvel::serve_load
