// One request a simulated client is to send: which endpoint, how, and with what text.
#pragma once

#include <string>

namespace quorvel::serve_load {

enum class Endpoint { kChat, kCompletion };

struct RequestPlan {
  Endpoint endpoint = Endpoint::kChat;
  bool stream = false;
  // Chat only: send the previous request's reply back as the assistant's turn, then the text as a
  // new user turn, instead of starting a new conversation.
  bool continues = false;
  int max_tokens = 16;
  std::string text;  // the prompt, or the user's message
};

}  // namespace quorvel::serve_load
