#include "host/serve_load/chat_history.h"

namespace quorvel::serve_load {

namespace {

constexpr double kTemperature = 0.7;

nlohmann::json message(const char* role, const std::string& content) { return {{"role", role}, {"content", content}}; }

}  // namespace

void ChatHistory::add_user_turn(const RequestPlan& plan) {
  if (plan.continues && reply_) {
    messages_.push_back(message("assistant", *reply_));
  } else {
    messages_ = nlohmann::json::array();
  }
  messages_.push_back(message("user", plan.text));
  reply_.reset();
}

nlohmann::json request_body(const RequestPlan& plan, const ChatHistory& history) {
  nlohmann::json body{{"model", "quorvel-serve-load"},
                      {"max_tokens", plan.max_tokens},
                      {"temperature", kTemperature},
                      {"stream", plan.stream}};
  if (plan.stream) body["stream_options"] = {{"include_usage", true}};
  if (plan.endpoint == Endpoint::kChat) {
    body["messages"] = history.messages();
  } else {
    body["prompt"] = plan.text;
  }
  return body;
}

}  // namespace quorvel::serve_load
