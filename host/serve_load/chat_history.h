// The conversation a simulated client is holding: the messages it sent and the last reply it got.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "host/serve_load/request_plan.h"

namespace quorvel::serve_load {

class ChatHistory {
 public:
  // Adds the plan's text as the next user turn: after the last reply when the plan continues and
  // there is one, else as the first turn of a new conversation.
  void add_user_turn(const RequestPlan& plan);
  // The reply to the last user turn, or nothing when the request failed.
  void set_reply(std::optional<std::string> reply) { reply_ = std::move(reply); }
  // The chat's messages, in the request body's form.
  const nlohmann::json& messages() const { return messages_; }

 private:
  nlohmann::json messages_ = nlohmann::json::array();
  std::optional<std::string> reply_;
};

// The JSON body of the plan's request (for a chat, with the history's messages).
nlohmann::json request_body(const RequestPlan& plan, const ChatHistory& history);

}  // namespace quorvel::serve_load
